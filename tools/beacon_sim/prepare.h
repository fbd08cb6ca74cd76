#pragma once

#include "beacon_sim/encoder.h"
#include "beacon_sim/motion.h"
#include "beacon_sim/options.h"
#include "beacon_sim/record.h"
#include "beacon_sim/source_streams.h"
#include "beacon_sim/video_feed.h"

// All that a simulation consists of.
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
    bool was_refused = false;      // the daemon was gone,
    bool was_ignored = false;      // or left the frames alone, when it was last looked at
    bool is_failed = false;
    bool is_aborted = false; // a second signal: nothing more is waited for
};

// Reads and opens everything that does not need the daemon. False after a message.
bool prepare_simulation(Simulation &simulation, const Options &options);

// Waits until the daemon listens and its shared memory is there, and says so when that takes time.
// False after a message: a signal came first, or the memory cannot be used.
bool wait_for_daemon(Simulation &simulation, const Options &options);
