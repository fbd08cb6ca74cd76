#pragma once

// Turns the daemon's answers into JSON that a parser takes.
// Stands on: nothing else of ours.

#include <string>
#include <string_view>

// The daemon escapes nothing in its answers, and leaves a comma before some closing braces. This
// returns the same answer as proper JSON, in which the strings are what the daemon meant:
// - a comma before a closing brace or bracket is dropped;
// - in a string, control characters and backslashes are escaped, and so is a double quote, unless
//   what follows it can only follow the end of a string;
// - bytes that are no UTF-8 become U+FFFD.
// Anything else, such as an answer that was cut off, is left for the parser to refuse.
std::string mend_answer(std::string_view answer);

// Replaces bytes that are no UTF-8 by U+FFFD.
std::string mend_utf8(std::string_view text);

// Has it U+FFFD, which may stand for bytes that were replaced?
bool is_mended(std::string_view text);

// Turns the \xNN escapes that a scan puts into a network's name back into bytes.
std::string decode_hex_escapes(std::string_view name);
