#pragma once

// The monotonic time that the client library counts in.
// Stands on: nothing else of ours.

#include <chrono>

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;
using Duration = Clock::duration;

inline Duration from_seconds(double seconds) {
    return std::chrono::duration_cast<Duration>(std::chrono::duration<double>(seconds));
}

inline double seconds_between(TimePoint earlier, TimePoint later) {
    return std::chrono::duration<double>(later - earlier).count();
}

// These two look at the clock.
inline TimePoint after(double seconds) {
    return Clock::now() + from_seconds(seconds);
}

inline double seconds_since(TimePoint then) {
    return seconds_between(then, Clock::now());
}
