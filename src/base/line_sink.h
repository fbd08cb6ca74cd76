#pragma once

// Passes lines on to a writer that may have no room, and never waits for it.
// Stands on: nothing else of ours.

#include <cstddef>
#include <string>
#include <sys/types.h>

// What comes is written at once or dropped. What is dropped is counted, and the number is told in a
// line of its own in front of the next line that is written. A line of which the writer took a part
// is kept and completed first. So a reader sees whole lines only, unless a line comes in several
// pieces: then its rest may be missing.
struct LineSink {
    // Writes up to `size` bytes without waiting; returns how many, or a negative number for none.
    ssize_t (*write)(const char *data, size_t size);
    std::string rest;      // of what the writer took in part
    unsigned long dropped; // lines that were not told yet
    bool is_line_open;     // what was written last did not end a line
    bool is_line_dropped;  // what was dropped last did not end a line
};

// One thread at a time.
void put_text(LineSink &sink, const char *text, size_t size);
