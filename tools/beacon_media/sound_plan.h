#pragma once

// Decides what keeps sound beside its pictures: silence where it is missing, and leaving some out.
// Stands on: nothing else of ours.

#include <cstdint>

// Times are nanoseconds in the stream.
struct Silence {
    int64_t begin = 0;
    int64_t length = 0; // 0: none is needed
};

// The silence that brings sound which ends at `end` up to `until`. Less than 0.4 s is not missed;
// of more than 15 s, only the last 15 s are filled.
Silence missing_sound(int64_t end, int64_t until);

// Sound ends at `end`, and more comes at `now`: is it to be left out? It is when 0.2 s more have
// come than time has passed: the clock of a sound card may be fast, or there are two of them.
bool is_too_much_sound(int64_t end, int64_t now);
