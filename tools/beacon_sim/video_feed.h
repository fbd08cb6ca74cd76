#pragma once

// Brings the encoder's stream into the frame ring, one access unit at a time.
// Stands on: beacon_sim/access_units, beacon_sim/record, source/complain, source/ring_writer.

#include "beacon_sim/access_units.h"
#include "beacon_sim/record.h"
#include "source/ring_writer.h"

#include <cstdint>
#include <deque>

struct VideoFeed {
    AccessUnitSplitter splitter;
    std::deque<AccessUnit> waiting; // for a free slot
    RingWriter ring;
    int ring_fd = -1;
    bool has_no_memory = false; // /dev/shm is full
    Record *record = nullptr;   // may be null
    bool is_ended = false;      // the encoder's stream is
    int64_t progress = 0;    // monotonic_ns of when the daemon last took a frame, or had taken all
    unsigned read_index = 0; // the daemon's, at that time
    uint64_t frames = 0;
    uint64_t bytes = 0;
    uint64_t too_long = 0; // units that are too long for a slot, skipped
};

// Reads from the encoder. Call it when `fd` is readable; at the end of file the feed has ended.
void read_encoder(VideoFeed &feed, int fd);

// Publishes as many of the waiting units as there are free slots, and memory for them.
void publish_waiting(VideoFeed &feed, int64_t now);

// Is everything published and taken by the daemon?
bool feed_is_drained(const VideoFeed &feed);
