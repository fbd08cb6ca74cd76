#include "beacon_media/exchange.h"

#include "source/audio_format.h"
#include "source/complain.h"
#include "source/source_command.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <unistd.h>

constexpr uint16_t data_port = 5000;
constexpr uint16_t video_port = 5001;
constexpr uint16_t audio_port = 5003;

// Often enough to stay present, less often than the daemon's commands come.
constexpr int64_t longest_pause = 950 * nanoseconds_per_millisecond;
constexpr int64_t telemetry_pause = 5 * nanoseconds_per_second;
constexpr size_t longest_line = 1400;
constexpr size_t longest_name = 40;

bool open_exchange(Exchange &exchange) {
    return open_udp_link(exchange.data, data_port) && open_udp_link(exchange.video, video_port) &&
           open_sound(exchange);
}

bool open_sound(Exchange &exchange) {
    return open_udp_link(exchange.audio, audio_port);
}

static void send_line(Exchange &exchange, const std::string &line, int64_t now) {
    send_datagram(exchange.data, line.data(), line.size());
    exchange.last_sent = now;
}

static std::string status_line(const ExchangeCounts &counts) {
    char line[100];
    snprintf(line, sizeof line, "S1 frames=%" PRIu64 " dropped=%" PRIu64, counts.passed,
             counts.dropped);
    return line;
}

// The command that comes every second is answered with what this source does; it has nothing to
// move, zoom or focus.
static std::string answer_to(std::string_view datagram, const ExchangeCounts &counts) {
    const auto command = parse_source_command(datagram);
    if (command && is_keep_alive(*command)) {
        return status_line(counts);
    }
    const std::string name = command ? escaped_line(command->cmd).substr(0, longest_name) : "?";
    return "A1 cmd=" + name + " result=unsupported";
}

static void take_commands(Exchange &exchange, int64_t now, const ExchangeCounts &counts) {
    static char datagram[2048];
    ssize_t length = 0;
    while ((length = receive_datagram(exchange.data, datagram, sizeof datagram)) >= 0) {
        // The daemon's answers to a client's requests are no commands.
        const std::string_view text(datagram, static_cast<size_t>(length));
        const auto command = parse_source_command(text);
        if (command && command->cmd == "shot") {
            exchange.is_shot_wanted = true;
        } else if (text.starts_with('!')) {
            send_line(exchange, answer_to(text, counts), now);
        }
    }
}

std::vector<std::string> take_lines(std::string &text) {
    std::vector<std::string> lines;
    size_t begin = 0;
    for (size_t end = 0; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
        std::string line = text.substr(begin, end - begin);
        if (line.ends_with('\r')) {
            line.pop_back();
        }
        if (line.starts_with('{')) {
            line.insert(0, 1, ' ');
        }
        if (!line.empty()) {
            lines.push_back(line.substr(0, longest_line));
        }
    }
    text.erase(0, begin);
    // The rest of a line that is too long anyway.
    if (text.size() > longest_line) {
        text.resize(longest_line);
    }
    return lines;
}

static void read_telemetry(Exchange &exchange, int64_t now) {
    char piece[8192];
    const ssize_t length = read(exchange.telemetry.fd, piece, sizeof piece);
    if (length > 0) {
        exchange.unfinished.append(piece, static_cast<size_t>(length));
        for (const std::string &line : take_lines(exchange.unfinished)) {
            send_line(exchange, line, now);
            exchange.has_complained = false;
        }
        return;
    }
    if (length < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    const std::string status = end_child(exchange.telemetry);
    if (!exchange.has_complained) {
        complain("the telemetry command %s, starting it again every 5 s", status.c_str());
        exchange.has_complained = true;
    }
    exchange.unfinished.clear();
    exchange.telemetry_due = now + telemetry_pause;
}

static void run_telemetry(Exchange &exchange, int64_t now) {
    if (exchange.telemetry.fd >= 0) {
        read_telemetry(exchange, now);
    } else if (!exchange.telemetry_command.empty() && now >= exchange.telemetry_due &&
               !start_child(exchange.telemetry, exchange.telemetry_command, true)) {
        exchange.telemetry_due = now + telemetry_pause;
    }
}

void run_exchange(Exchange &exchange, int64_t now, bool has_video, const ExchangeCounts &counts) {
    if (beat_is_due(exchange.presence_beat, now) && has_video) {
        send_datagram(exchange.video, "video", 5);
    }
    if (!exchange.has_telemetry) {
        return;
    }
    run_telemetry(exchange, now);
    take_commands(exchange, now, counts);
    if (now - exchange.last_sent > longest_pause) {
        send_line(exchange, status_line(counts), now);
    }
}

void answer_shot(Exchange &exchange, const std::string &path, int64_t now) {
    send_line(exchange, "A1 cmd=shot result=" + (path.empty() ? "failed" : "done file=" + path),
              now);
}

void send_sound(Exchange &exchange, const uint8_t *data, size_t size) {
    std::vector<uint8_t> &samples = exchange.samples;
    samples.insert(samples.end(), data, data + size);
    size_t sent = 0;
    for (; samples.size() - sent >= audio_datagram_size; sent += audio_datagram_size) {
        send_datagram(exchange.audio, samples.data() + sent, audio_datagram_size);
    }
    samples.erase(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(sent));
}

void close_exchange(Exchange &exchange) {
    if (exchange.telemetry.pid > 0) {
        end_child(exchange.telemetry);
    }
}
