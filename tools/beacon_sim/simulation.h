#pragma once

#include "beacon_sim/options.h"

// Runs the simulated camera until a signal, the end of its video or a failure: waits for the
// daemon, feeds it, and at the end waits until it has taken every frame. Prints the daemon's
// commands and a summary on standard output. Returns the exit status: 0, or 1 after a message.
int run_simulation(const Options &options);
