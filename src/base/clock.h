#pragma once

// Wall-clock milliseconds, in which the daemon counts every age and time-out.
// Stands on: nothing else of ours.

#include <cstdint>
#include <ctime>

// On 32-bit boards too, or time ends in 2038.
static_assert(sizeof(time_t) == 8);

// Seconds times 1000 plus nanoseconds times 1e-6, truncated, modulo 2^32. Compare two such values
// only by their unsigned difference, which stays correct across the wrap (every 49.7 days).
constexpr uint32_t milliseconds_of(const timespec &time) {
    return static_cast<uint32_t>(time.tv_sec) * 1000U +
           static_cast<uint32_t>(time.tv_nsec / 1000000);
}

// The current CLOCK_REALTIME in these milliseconds. Any thread.
uint32_t now_ms();
