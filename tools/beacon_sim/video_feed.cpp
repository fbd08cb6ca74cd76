#include "beacon_sim/video_feed.h"

#include "source/complain.h"

#include <cerrno>
#include <unistd.h>
#include <utility>

void read_encoder(VideoFeed &feed, int fd) {
    static uint8_t piece[65536];
    const ssize_t length = read(fd, piece, sizeof piece);
    if (length < 0 && (errno == EINTR || errno == EAGAIN)) {
        return;
    }
    std::vector<AccessUnit> units;
    if (length > 0) {
        push_stream(feed.splitter, piece, static_cast<size_t>(length), units);
    } else {
        end_stream(feed.splitter, units);
        feed.is_ended = true;
    }
    for (AccessUnit &unit : units) {
        feed.waiting.push_back(std::move(unit));
    }
}

static void publish(VideoFeed &feed, const AccessUnit &unit) {
    if (unit.size() > feed.ring.frame_capacity) {
        if (feed.too_long++ == 0) {
            complain("skipped a frame of %zu bytes, a slot of the ring holds %u; a lower "
                     "--bitrate may help",
                     unit.size(), feed.ring.frame_capacity);
        }
        return;
    }
    const int64_t when = publish_frame(feed.ring, unit.data(), static_cast<uint32_t>(unit.size()));
    ++feed.frames;
    feed.bytes += unit.size();
    if (feed.record != nullptr) {
        add_to_record(*feed.record, unit, when);
    }
}

// Says when /dev/shm is full, and when it no longer is.
static bool has_memory(VideoFeed &feed) {
    const size_t size = feed.waiting.front().size();
    const bool is_full =
        size <= feed.ring.frame_capacity && !reserve_frame(feed.ring, feed.ring_fd, size);
    if (is_full != feed.has_no_memory) {
        complain(is_full ? "/dev/shm is full, waiting for room" : "/dev/shm has room again");
    }
    feed.has_no_memory = is_full;
    return !is_full;
}

void publish_waiting(VideoFeed &feed, int64_t now) {
    while (!feed.waiting.empty() && ring_has_room(feed.ring) && has_memory(feed)) {
        publish(feed, feed.waiting.front());
        feed.waiting.pop_front();
    }
    const unsigned read_index = ring_read_index(feed.ring);
    if (read_index != feed.read_index || feed_is_drained(feed)) {
        feed.progress = now;
    }
    feed.read_index = read_index;
}

bool feed_is_drained(const VideoFeed &feed) {
    return feed.waiting.empty() && ring_is_drained(feed.ring);
}
