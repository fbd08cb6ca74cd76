#include "beacon_media/sound_plan.h"

#include <algorithm>

constexpr int64_t millisecond = 1000000;

Silence missing_sound(int64_t end, int64_t until) {
    constexpr int64_t patience = 400 * millisecond;
    constexpr int64_t longest = 15000 * millisecond;
    if (until - end < patience) {
        return {end, 0};
    }
    const int64_t begin = std::max(end, until - longest);
    return {begin, until - begin};
}

bool is_too_much_sound(int64_t end, int64_t now) {
    constexpr int64_t most_ahead = 200 * millisecond;
    return end - now > most_ahead;
}
