#pragma once

// Receives video and sound from the daemon, as any client does.
// Stands on: beacon_media/hub, client/clock, client/packet, client/status_record,
// client/stream_start, net/relay_packet.

#include "client/clock.h"
#include "client/status_record.h"
#include "client/stream_start.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

// It comes over the loopback and through the hub, into sockets that hold some seconds, so nothing
// is lost on the way as long as next_news() is called again and again. When the daemon or the hub
// comes back after it was gone, the stream begins again with the next parameter set.
struct DaemonStream {
    int socket = -1; // -1: not joined, or not connected for the moment
    bool is_joined = false;
    std::vector<uint8_t> buffer;     // of the last message
    std::span<const uint8_t> unread; // what is left of it
    StreamStart start;
    std::string frame;     // the blocks that have come of it
    std::string delivered; // what the last news points to
    TimePoint frame_heard{};
    std::optional<StatusRecord> status; // the latest; none before the first one comes
};

// Asks for video and sound. False after a message.
bool join_stream(DaemonStream &stream);

// Asks no more.
void leave_stream(DaemonStream &stream);

enum class StreamNews : uint8_t {
    nothing,
    video, // one or more whole frames, from a parameter set on
    sound,
    gone, // the daemon does not run; it is asked again by itself
};

// Waits for the next news until the deadline, or until `other`, a descriptor, can be read: then
// there may be none. `data` is valid until the next call.
StreamNews next_news(DaemonStream &stream, TimePoint deadline, int other,
                     std::span<const uint8_t> &data);
