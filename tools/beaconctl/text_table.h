#pragma once

// Lays out text in columns.
// Stands on: nothing else of ours.

#include <string>
#include <string_view>
#include <utility>
#include <vector>

// How many columns a UTF-8 text takes, one for each character.
size_t text_width(std::string_view text);

// The first `columns` characters.
std::string cut_text(std::string_view text, size_t columns);

// "[####    ]" in that many columns, for a part from 0 to 1; empty if there are fewer than ten.
std::string progress_bar(double part, size_t columns);

// Replaces control characters by "?", so that text from a board cannot control the terminal. Line
// ends stay if `keep_lines` is set.
std::string printable(std::string_view text, bool keep_lines);

// The lines of a table of two columns. A value of several lines continues below its first line. The
// values are made printable.
std::vector<std::string> table_lines(const std::vector<std::pair<std::string, std::string>> &rows);
