#pragma once

// Runs the simulation from start to end.
// Stands on: beacon_sim/options, beacon_sim/prepare, beacon_sim/terminal, source/complain,
// source/signals.

#include "beacon_sim/options.h"

// Waits for the daemon and feeds it until a signal, the end of the video or a failure; at the end,
// waits until the daemon has taken every frame. Prints the daemon's commands and a summary on
// standard output. Returns the exit status: 0, or 1 after a message.
int run_simulation(const Options &options);
