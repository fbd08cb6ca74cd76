#pragma once

// Parses what tvservice prints.
// Stands on: base/text.

#include <string>

// Turns the output of `tvservice -s` into the current-mode members of the display answer, without
// braces: state, family, code (HDMI only), aspect, size, rate, output, scan. A missing token gives
// no member.
std::string parse_current_mode(const std::string &text);

// Turns the output of `tvservice -m GROUP` into a JSON array of mode codes.
std::string parse_mode_list(const std::string &text);
