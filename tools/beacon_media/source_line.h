#pragma once

// Reads the file that names a board's source.
// Stands on: nothing else of ours.

#include <optional>
#include <string>
#include <vector>

// The first line of `text` that is neither empty nor a comment ("#"); empty: there is none.
std::string source_line(const std::string &text);

// The words of a line, between blanks. Blanks within '...' or "..." are part of a word, and the
// quotes are not. Nothing: a quote is not closed.
std::optional<std::vector<std::string>> split_words(const std::string &line);
