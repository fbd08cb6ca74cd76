#pragma once

// Opens everything that a simulation needs.
// Stands on: automove/camera_state_layout, beacon_sim/encoder, beacon_sim/motion,
// beacon_sim/options, beacon_sim/record, beacon_sim/source_streams, beacon_sim/video_feed,
// media/frame_ring_layout, rc/rc_block_layout, source/complain, source/shared_object,
// source/signals.

#include "beacon_sim/encoder.h"
#include "beacon_sim/motion.h"
#include "beacon_sim/options.h"
#include "beacon_sim/record.h"
#include "beacon_sim/source_streams.h"
#include "beacon_sim/video_feed.h"

// Everything that a simulation consists of.
struct Simulation {
    EncoderOrder order;
    Encoder encoder;
    VideoFeed feed;
    SourceStreams streams;
    Motion motion;
    Record record;
    bool has_record = false;
    uint64_t played = 0; // frames and sounds of earlier rounds of the file
    int signals = -1;
    int64_t begin = 0;             // monotonic_ns; times in the output count from here
    int64_t stop_since = 0;        // monotonic_ns; 0: it goes on
    bool is_keyboard_open = false; // with --keys, until standard input ends
    bool was_refused = false;      // when last checked, the daemon was gone,
    bool was_ignored = false;      // or took no frames
    bool is_failed = false;
    bool is_aborted = false; // after a second signal: do not wait for anything
};

// Reads and opens everything that does not need the daemon. False after a message.
bool prepare_simulation(Simulation &simulation, const Options &options);

// Waits until the daemon listens and its shared memory exists, with a message if that takes time.
// False after a message: a signal came first, or the memory cannot be used.
bool wait_for_daemon(Simulation &simulation, const Options &options);
