#pragma once

// Reads files of text.
// Stands on: nothing else of ours.

#include <string>

// Reads all of a file; "-" is standard input. Returns 0, or the errno that says why not.
int read_text_file(const std::string &name, std::string &text);
