#pragma once

// Serves browsers, in one thread, with libwebsockets.
// Stands on: beacon_web/file_worker, beacon_web/live_text, beacon_web/login, beacon_web/options,
// beacon_web/session.

#include "beacon_web/options.h"

// Runs until SIGINT or SIGTERM. Returns the program's exit status; what went wrong has been said.
int run_server(const Options &options);
