#pragma once

#include "beaconctl/link.h"

#include <string>
#include <utility>
#include <vector>

// What people see: a block of lines that is written anew in place, and a line of progress.

bool is_terminal(int fd);

// Writes lines to standard output. False: nobody reads it any more.
bool print_lines(const std::vector<std::string> &lines);
bool print_table(const std::vector<std::pair<std::string, std::string>> &rows);

// A block on a terminal's standard output, cut at its width and height.
struct Screen {
    size_t lines = 0; // of the block that stands there
};
bool rewrite_screen(Screen &screen, const std::vector<std::string> &lines);

// One line on standard error, several times a second, when that is a terminal; else nothing.
struct Progress {
    TimePoint due{};
    bool is_shown = false;
};
bool progress_due(Progress &progress);
void show_progress(Progress &progress, const std::string &text);
void clear_progress(Progress &progress);

// "1.2 kB", "3.4 MB": of 10^3 and 10^6 bytes.
std::string bytes_text(double bytes);
