#pragma once

// Makes the numbers that Prometheus collects.
// Stands on: beacon_web/board_view, client/clock.

#include "beacon_web/board_view.h"
#include "client/clock.h"

#include <string>

// In Prometheus' text format, without what is not known. `viewers`: browsers that are connected;
// `dropped`: pictures that came after a loss and could not be shown.
std::string metrics_text(const BoardView &view, int viewers, uint64_t dropped, TimePoint now);
