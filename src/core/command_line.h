#pragma once

// Handles the daemon's command line: --help and --version.
// Stands on: base/version.

#include <string>

// The text to print instead of starting the daemon: that of --help or --version, if it is the only
// argument. Empty when the daemon should start: nothing else on the command line is read. `words`
// includes the program's name. Any thread.
std::string requested_text(int count, const char *const *words);

// Writes the text to standard output; returns false on failure. Main thread.
bool print_text(const std::string &text);
