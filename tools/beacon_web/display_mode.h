#pragma once

// The command that switches the board's video output to another mode.
// Stands on: client/answers, client/setting_rows, client/value_check.

#include "client/answers.h"

#include <string>

// The daemon puts the values into commands for a shell: only those of the tables get there.

// `wanted` is {"output": "hdmi", "group": "CEA", "mode": 16}, without a group the mode that the
// screen prefers; or {"output": "tv", "standard": "PAL", "aspect": "4:3", "scan": "P"}, with no
// scan for interlaced. "keep": true also stores it for the next start. Empty, with the reason in
// words: that is no mode.
std::string display_mode_command(const Json &wanted, std::string &reason);
