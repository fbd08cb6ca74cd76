#pragma once

// Says when each picture of a file is due, so that the file plays in real time.
// Stands on: nothing else of ours.

#include <cstdint>

// All times are in nanoseconds; no_time where a picture has none.
constexpr int64_t no_time = -1;

struct Pace {
    int64_t begin = no_time; // when the first picture was due
    int64_t first = no_time; // its own time in the file
    int64_t next = 0;        // the due time of the picture after the last one
};

// When is this picture due? `stamp` is its time in the file, `duration` how long it is shown. Where
// the file has no times, pictures follow each other at their durations, or 30 a second. A file
// whose times jump by more than two seconds goes on as if they had not.
int64_t due_time(Pace &pace, int64_t now, int64_t stamp, int64_t duration);

// The file is played again: its times begin again, right after the last picture.
void begin_again(Pace &pace);
