#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

// How many columns a UTF-8 text takes, a column for each character.
size_t text_width(std::string_view text);

// The first `columns` characters.
std::string cut_text(std::string_view text, size_t columns);

// "[####    ]", which takes so many columns, for a part of 0 to 1; empty when that is too narrow to
// tell anything.
std::string progress_bar(double part, size_t columns);

// Control characters become "?", so that what a board says cannot steer the terminal; line ends
// stay when `keep_lines` is set.
std::string printable(std::string_view text, bool keep_lines);

// Lines of a table of two columns; a value of several lines goes on below its first. The values are
// made printable.
std::vector<std::string> table_lines(const std::vector<std::pair<std::string, std::string>> &rows);
