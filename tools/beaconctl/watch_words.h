#pragma once

// Puts what `watch` measures into words.
// Stands on: client/clock, client/status_words, client/stream_meter.

#include "client/clock.h"
#include "client/status_words.h"
#include "client/stream_meter.h"

#include <string>

// `streams`: the meter, or null while video and sound are not received; what they would tell is "-"
// then, and null in JSON. `daemon`: the meter, which knows the daemon's sequence in any case.
StatusWords measured_words(const StreamMeter *streams, const StreamMeter &daemon, TimePoint now);
std::string measured_line(const StreamMeter *streams); // "; video: ..." and so on
std::string measured_json(const StreamMeter *streams, const StreamMeter &daemon, TimePoint now);

// "3 d 04:05:06", "04:05:06".
std::string duration_text(double seconds);
