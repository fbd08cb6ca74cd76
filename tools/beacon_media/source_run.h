#pragma once

// Runs a source until it ends or a signal stops it.
// Stands on: beacon_media/address, beacon_media/child, beacon_media/engine, beacon_media/exchange,
// beacon_media/feed, beacon_media/options, beacon_media/pace, beacon_media/photo, source/clocks,
// source/complain, source/shared_object, source/signals.

#include "beacon_media/options.h"

// Returns the program's exit status.
int run_source(const Options &options);
