#include "beacon_sim/source_streams.h"

#include "base/bytes.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <numbers>
#include <string>
#include <unistd.h>

constexpr uint16_t data_port = 5000;
constexpr uint16_t video_port = 5001;
constexpr uint16_t audio_port = 5003;

constexpr unsigned tone_frequency = 440; // a whole number of waves a second: no seams
constexpr double tone_loudness = 8000.0;
constexpr size_t longest_command = 65536;
constexpr size_t longest_name = 40; // of a command's name in its answer

bool open_streams(SourceStreams &streams) {
    return (!streams.has_telemetry || open_udp_link(streams.data, data_port)) &&
           (!streams.has_video || open_udp_link(streams.video, video_port)) &&
           (!streams.has_audio || open_udp_link(streams.audio, audio_port));
}

static void send_telemetry(SourceStreams &streams, uint64_t frames) {
    char line[100];
    const int length =
        snprintf(line, sizeof line, "T1 number=%" PRIu64 " frames=%" PRIu64 " commands=%" PRIu64,
                 streams.data.sent, frames, streams.commands);
    send_datagram(streams.data, line, static_cast<size_t>(length));
}

// A datagram that is not a JSON command has no name.
static void send_answer(SourceStreams &streams, const std::optional<SourceCommand> &command) {
    std::string name = command ? escaped_line(command->cmd) : "?";
    name.resize(std::min(name.size(), longest_name));
    char line[100];
    const int length = snprintf(line, sizeof line, "A1 number=%" PRIu64 " cmd=%s",
                                streams.data.sent, name.c_str());
    send_datagram(streams.data, line, static_cast<size_t>(length));
}

// Any datagram to the video port says that there is video.
static void send_presence(SourceStreams &streams) {
    send_datagram(streams.video, "video", 5);
}

static void send_tone(SourceStreams &streams) {
    uint8_t datagram[audio_datagram_size];
    const uint64_t first = streams.audio.sent * audio_samples;
    for (size_t i = 0; i < audio_samples; ++i) {
        const auto in_second = static_cast<double>((first + i) % audio_rate);
        const double angle = 2.0 * std::numbers::pi * tone_frequency * in_second / audio_rate;
        const auto sample = static_cast<int16_t>(std::lround(tone_loudness * std::sin(angle)));
        put_u16(datagram + 2 * i, static_cast<uint16_t>(sample));
    }
    send_datagram(streams.audio, datagram, sizeof datagram);
}

bool daemon_listens(SourceStreams &streams) {
    if (streams.has_telemetry) {
        send_telemetry(streams, 0);
        return !streams.data.is_refused;
    }
    if (streams.has_video) {
        send_presence(streams);
        return !streams.video.is_refused;
    }
    if (streams.has_audio) {
        send_tone(streams);
        return !streams.audio.is_refused;
    }
    return true;
}

bool daemon_is_gone(const SourceStreams &streams) {
    return streams.data.is_refused || streams.video.is_refused || streams.audio.is_refused;
}

void run_streams(SourceStreams &streams, int64_t now, uint64_t frames) {
    if (streams.has_telemetry && beat_is_due(streams.telemetry_beat, now)) {
        send_telemetry(streams, frames);
    }
    if (streams.has_video && beat_is_due(streams.presence_beat, now)) {
        send_presence(streams);
    }
    if (streams.has_audio && streams.is_tone && beat_is_due(streams.tone_beat, now)) {
        send_tone(streams);
    }
}

void take_commands(SourceStreams &streams, Gimbal &gimbal, int64_t begin) {
    static char datagram[longest_command];
    ssize_t length = 0;
    while ((length = receive_datagram(streams.data, datagram, sizeof datagram)) >= 0) {
        const std::string_view text(datagram, static_cast<size_t>(length));
        ++streams.commands;
        const double seconds = static_cast<double>(monotonic_ns() - begin) / 1e9;
        printf("%9.3f  command  %s\n", seconds, escaped_line(text).c_str());
        const auto command = parse_source_command(text);
        if (command) {
            order_gimbal(gimbal, *command);
        }
        if (!command || !is_keep_alive(*command)) {
            send_answer(streams, command);
        }
    }
}

bool read_sound(SourceStreams &streams, int fd) {
    uint8_t piece[8192];
    const ssize_t length = read(fd, piece, sizeof piece);
    if (length <= 0) {
        return length < 0 && (errno == EINTR || errno == EAGAIN);
    }
    std::vector<uint8_t> &samples = streams.samples;
    samples.insert(samples.end(), piece, piece + length);
    size_t sent = 0;
    for (; samples.size() - sent >= audio_datagram_size; sent += audio_datagram_size) {
        send_datagram(streams.audio, samples.data() + sent, audio_datagram_size);
    }
    samples.erase(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(sent));
    return true;
}
