#pragma once

#include "report.h"

// The measurements of a run: every subject started anew for each, in turns.

// What to run and for how long.
struct Plan {
    const char *daemon_path;
    int rounds;          // of each load and of the search for the highest rate
    double seconds;      // of each load
    double rate_seconds; // of each step of the search
    unsigned idle_seconds;
    unsigned burst_frames;      // of each burst run
    unsigned long_burst_frames; // of those that the target is about
    bool all_bursts;            // every size and every kind of client
    Load data;
    Load video;
    bool check;
};

Samples measure_all(const Plan &plan);
