#pragma once

#include <string>
#include <string_view>

// The daemon writes its answers without escaping anything and leaves a comma before some closing
// braces. This gives the same answer as JSON that a parser takes, with the strings meaning what the
// daemon meant:
// - a comma before a closing brace or bracket is dropped;
// - within strings a control character is escaped, a backslash stands for itself, and so does a
//   double quote after which the answer does not go on as it must after a string;
// - bytes that are no UTF-8 become U+FFFD.
// What is beyond that (an answer that was cut) is left for the parser to refuse.
std::string mend_answer(std::string_view answer);

// Bytes that are no UTF-8 become U+FFFD.
std::string mend_utf8(std::string_view text);

// The names of a scan, "A,B,C": each with its \xNN escapes turned back into bytes.
std::string decode_hex_escapes(std::string_view name);
