#pragma once

// Brings pictures into the frame ring, and says what goes wrong on the way.
// Stands on: beacon_media/engine, beacon_media/picture_gate, beacon_media/ring_link,
// media/frame_ring_layout, source/clocks, source/complain.

#include "beacon_media/engine.h"
#include "beacon_media/picture_gate.h"
#include "beacon_media/ring_link.h"

#include <cstdint>
#include <vector>

struct Feed {
    RingLink ring;
    PictureGate gate;
    RingRoom room = RingRoom::free; // for the last picture that could have gone
    uint64_t lost_before = 0;       // dropped when there was last room
    uint64_t seen = 0;              // pictures from the source
    int64_t last_seen = 0;          // when the last one came; CLOCK_MONOTONIC, ns
    bool is_silent = false;         // none came for five seconds
    int64_t too_long_said = 0;      // when a line last said so
    uint64_t too_long_unsaid = 0;
    int64_t age_sum = 0; // of the pictures published since the last line of --stats
    uint64_t ages = 0;
    uint64_t passed_said = 0; // the counts at that line
    uint64_t bytes_said = 0;
    std::vector<uint8_t> key_frame; // the last one
};

// Publishes a picture, or drops it. Never waits.
void feed_picture(Feed &feed, const Piece &picture, int64_t now);

// Says once when no picture has come for five seconds, and when they come again.
void watch_silence(Feed &feed, int64_t now);

// Prints a line of --stats on standard output: what happened since the last one.
void print_stats(Feed &feed, double seconds);
