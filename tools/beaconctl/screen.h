#pragma once

#include "client/link.h"

#include <string>
#include <utility>
#include <vector>

// What people see: a block of lines that is written anew in place, and a line of progress.

bool is_terminal(int fd);

// Writes to standard output. False: it takes no more, which finish_output() tells.
bool print_text(const std::string &text);
bool print_lines(const std::vector<std::string> &lines);
bool print_table(const std::vector<std::pair<std::string, std::string>> &rows);

// To be called last. Returns the exit code; a line on standard error says so when standard output
// could not take all that was written. A reader that has left (EPIPE) is no error.
int finish_output(int code);

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

// The columns that a line of progress may take; 0 when standard error is no terminal.
size_t progress_columns();

// "1.2 kB", "3.4 MB": of 10^3 and 10^6 bytes.
std::string bytes_text(double bytes);
