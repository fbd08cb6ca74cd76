#pragma once

// Writes to the terminal: text, a block that is rewritten in place, a line of progress.
// Stands on: beaconctl/exit_codes, beaconctl/fail, beaconctl/text_table, client/clock.

#include "client/clock.h"

#include <string>
#include <termios.h>
#include <utility>
#include <vector>

bool is_terminal(int fd);

// Write to standard output. False: that failed; finish_output() reports it.
bool print_text(const std::string &text);
bool print_lines(const std::vector<std::string> &lines);
bool print_table(const std::vector<std::pair<std::string, std::string>> &rows);

// To be called last. Returns `code`, or exit_failed after a line on standard error if standard
// output did not take all that was written. A reader that has left (EPIPE) is not an error.
int finish_output(int code);

// A block of lines on a terminal that is rewritten in place, cut at its width and height.
struct Screen {
    size_t lines = 0; // of the block that is shown
};
bool rewrite_screen(Screen &screen, const std::vector<std::string> &lines);

// Single keys from the terminal, without Enter. Off a terminal there are none.
struct KeyInput {
    bool is_taken = false;
    termios before{};
};
void take_keys(KeyInput &keys);
char key_pressed(const KeyInput &keys); // does not wait; 0: none
void give_keys_back(KeyInput &keys);

// A line of progress on standard error, several times a second, if that is a terminal.
struct Progress {
    TimePoint due{};
    bool is_shown = false;
};
// From now on, off a terminal too: a whole line every five seconds.
void always_show_progress();
bool progress_due(Progress &progress);
void show_progress(Progress &progress, const std::string &text);
void clear_progress(Progress &progress);

// The columns for a line of progress; 0 if standard error is not a terminal.
size_t progress_columns();

// "1.2 kB", "3.4 MB": of 10^3 and 10^6 bytes.
std::string bytes_text(double bytes);
