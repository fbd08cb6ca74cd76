#pragma once

#include <string>

// Reading what tvservice prints.

// The current-mode members of the display answer, without braces, from the text of `tvservice -s`:
// state, family, code (HDMI only), aspect, size, rate, output, scan. A token that is missing gives
// no member.
std::string parse_current_mode(const std::string &text);

// The mode codes of the text of `tvservice -m GROUP`, as a JSON array.
std::string parse_mode_list(const std::string &text);
