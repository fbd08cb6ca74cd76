#pragma once

#include <cstdint>
#include <ctime>

constexpr int64_t nanoseconds_per_second = 1000000000;
constexpr int64_t nanoseconds_per_millisecond = 1000000;

// CLOCK_MONOTONIC, which all processes of the machine share, in nanoseconds.
inline int64_t monotonic_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * nanoseconds_per_second + now.tv_nsec;
}

// Something that is done at a steady rate.
struct Beat {
    int64_t interval = 0; // nanoseconds
    int64_t due = 0;      // monotonic_ns; 0: at once
    uint64_t count = 0;   // how often it was due
};

// Is the beat due at `now`? Then it is counted, and is due again one interval after it was due. A
// delay of many intervals (the machine slept) is not made up for.
inline bool beat_is_due(Beat &beat, int64_t now) {
    constexpr int64_t most_to_catch_up = 5;
    if (now < beat.due) {
        return false;
    }
    if (now - beat.due > most_to_catch_up * beat.interval) {
        beat.due = now;
    }
    beat.due += beat.interval;
    ++beat.count;
    return true;
}
