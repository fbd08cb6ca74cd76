#pragma once

#include <cstdint>
#include <ctime>

// On a 32-bit board too: there is a time after 2038.
static_assert(sizeof(time_t) == 8);

// Wall-clock milliseconds as every age and time-out of the daemon uses them: seconds times 1000
// plus nanoseconds times 1e-6 truncated, modulo 2^32. Two such values are compared only by their
// unsigned difference, which stays right across the wrap (every 49.7 days).
constexpr uint32_t milliseconds_of(const timespec &time) {
    return static_cast<uint32_t>(time.tv_sec) * 1000U +
           static_cast<uint32_t>(time.tv_nsec / 1000000);
}

// The current CLOCK_REALTIME through milliseconds_of. Any thread.
uint32_t now_ms();
