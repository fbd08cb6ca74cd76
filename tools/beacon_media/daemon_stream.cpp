#include "beacon_media/daemon_stream.h"

#include "beacon_media/hub.h"
#include "client/packet.h"

#include "base/bytes.h"
#include "net/relay_packet.h"

#include <algorithm>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

// A frame ends with a block that is not full. If its last block happens to be full, it has ended
// when nothing more comes.
constexpr double frame_patience = 0.05; // seconds
constexpr size_t longest_frame = 4000000;

static void begin_again(DaemonStream &stream) {
    stream.start = {};
    stream.frame.clear();
    stream.unread = {};
}

bool join_stream(DaemonStream &stream) {
    stream.buffer.resize(largest_hub_message);
    stream.socket = connect_to_hub();
    begin_again(stream);
    stream.status.reset();
    stream.is_joined = stream.socket >= 0;
    return stream.is_joined;
}

void leave_stream(DaemonStream &stream) {
    if (stream.socket >= 0) {
        close(stream.socket);
    }
    stream.socket = -1;
    stream.is_joined = false;
}

static StreamNews deliver(DaemonStream &stream, std::span<const uint8_t> &data) {
    stream.delivered.swap(stream.frame);
    stream.frame.clear();
    data = {reinterpret_cast<const uint8_t *>(stream.delivered.data()), stream.delivered.size()};
    return data.empty() ? StreamNews::nothing : StreamNews::video;
}

static StreamNews take_block(DaemonStream &stream, std::span<const uint8_t> block,
                             std::span<const uint8_t> &data) {
    if (stream.start.found) {
        stream.frame.append(reinterpret_cast<const char *>(block.data()), block.size());
    } else {
        stream.frame += take_stream(stream.start, block, false);
    }
    stream.frame_heard = Clock::now();
    const bool is_last = block.size() < relay_video_block_size;
    return is_last || stream.frame.size() > longest_frame ? deliver(stream, data)
                                                          : StreamNews::nothing;
}

static StreamNews take_packet(DaemonStream &stream, const PacketView &packet,
                              std::span<const uint8_t> &data) {
    switch (packet_kind(packet)) {
    case PacketKind::video:
        return take_block(stream, packet.payload, data);
    case PacketKind::audio:
        data = packet.payload;
        return StreamNews::sound;
    case PacketKind::status:
        stream.status = parse_status(packet);
        return StreamNews::nothing;
    default:
        return StreamNews::nothing;
    }
}

enum class Message : uint8_t {
    packet,
    gone, // the daemon is
    none,
    other, // something else can be read
};

// Waits for a message. Connects again when the hub is gone, which is as if the daemon had been.
static Message receive_message(DaemonStream &stream, TimePoint until, int other) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
    pollfd watched[] = {{stream.socket, POLLIN, 0}, {other, POLLIN, 0}};
    if (poll(watched, 2, static_cast<int>(std::clamp<long long>(left, 0, 1000))) <= 0) {
        return Message::none;
    }
    if (watched[0].revents == 0) {
        return Message::other;
    }
    const ssize_t size = recv(stream.socket, stream.buffer.data(), stream.buffer.size(), 0);
    if (size <= 0) {
        leave_stream(stream);
        join_stream(stream);
        return Message::gone;
    }
    if (size == gone_message_size) {
        return Message::gone;
    }
    stream.unread = {stream.buffer.data(), static_cast<size_t>(size)};
    return Message::packet;
}

// The next packet of the message.
static bool take_part(DaemonStream &stream, PacketView &packet) {
    if (stream.unread.size() < relay_header_size) {
        stream.unread = {};
        return false;
    }
    const size_t size = relay_header_size + get_u16(stream.unread.data() + relay_length_at);
    const auto parsed = parse_packet(stream.unread.first(std::min(size, stream.unread.size())));
    stream.unread = parsed ? stream.unread.subspan(size) : stream.unread.first(0);
    packet = parsed.value_or(packet);
    return parsed.has_value();
}

static Message take_message(DaemonStream &stream, TimePoint until, int other, PacketView &packet) {
    Message message = Message::packet;
    if (stream.unread.empty()) {
        message = receive_message(stream, until, other);
    }
    if (message == Message::packet && !take_part(stream, packet)) {
        return Message::none;
    }
    return message;
}

StreamNews next_news(DaemonStream &stream, TimePoint deadline, int other,
                     std::span<const uint8_t> &data) {
    PacketView packet{};
    while (true) {
        const TimePoint frame_end = stream.frame_heard + from_seconds(frame_patience);
        const TimePoint until = stream.frame.empty() ? deadline : std::min(deadline, frame_end);
        const Message message = take_message(stream, until, other, packet);
        if (message == Message::gone) {
            begin_again(stream);
            stream.status.reset();
            return StreamNews::gone;
        }
        const StreamNews news =
            message == Message::packet ? take_packet(stream, packet, data) : StreamNews::nothing;
        if (news != StreamNews::nothing) {
            return news;
        }
        if (!stream.frame.empty() && Clock::now() >= frame_end) {
            return deliver(stream, data);
        }
        if (message == Message::other || Clock::now() >= deadline) {
            return StreamNews::nothing;
        }
    }
}
