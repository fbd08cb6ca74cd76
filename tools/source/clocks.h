#pragma once

// Reads the clocks, and times what is done at a steady rate.
// Stands on: nothing else of ours.

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

// The time of day in milliseconds modulo 2^32, as the shared radio-control block has it.
inline uint32_t wall_clock_ms() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint32_t>(now.tv_sec * int64_t{1000} +
                                 now.tv_nsec / nanoseconds_per_millisecond);
}

// Something done at a steady rate.
struct Beat {
    int64_t interval = 0; // nanoseconds
    int64_t due = 0;      // monotonic_ns; 0: at once
    uint64_t count = 0;   // how often it was due
};

// Is the beat due at `now`? If so, it is counted, and is due again one interval later. After a
// delay of many intervals (the machine slept) the missed ones are skipped.
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
