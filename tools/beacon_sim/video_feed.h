#pragma once

#include "beacon_sim/access_units.h"
#include "beacon_sim/record.h"
#include "source/ring_writer.h"

#include <cstdint>
#include <deque>

// The encoder's stream on its way into the frame ring, one access unit at a time.
struct VideoFeed {
    AccessUnitSplitter splitter;
    std::deque<AccessUnit> waiting; // for a free slot
    RingWriter ring;
    Record *record = nullptr; // may be null
    bool is_ended = false;    // the encoder's stream is
    int64_t progress = 0;     // monotonic_ns of when the daemon last took one, or had all
    unsigned read_index = 0;  // the daemon's, then
    uint64_t frames = 0;
    uint64_t bytes = 0;
    uint64_t too_long = 0; // units that no slot takes, left out
};

// Reads what the encoder has to give. Call when `fd` is readable; at its end the feed has ended.
void read_encoder(VideoFeed &feed, int fd);

// Publishes as many of the waiting units as there are free slots.
void publish_waiting(VideoFeed &feed, int64_t now);

// Is everything published, and taken by the daemon?
bool feed_is_drained(const VideoFeed &feed);
