#include "beacon_media/pace.h"

#include <cstdlib>

constexpr int64_t usual_duration = 1000000000 / 30;
constexpr int64_t largest_jump = 2000000000;

int64_t due_time(Pace &pace, int64_t now, int64_t stamp, int64_t duration) {
    if (pace.begin == no_time) {
        pace.begin = now;
        pace.next = now;
    }
    int64_t due = pace.next;
    if (stamp != no_time) {
        const int64_t by_stamp = pace.begin + (stamp - pace.first);
        if (pace.first == no_time || std::abs(by_stamp - pace.next) > largest_jump) {
            pace.first = stamp;
            pace.begin = pace.next;
        } else {
            due = by_stamp;
        }
    }
    pace.next = due + (duration > 0 ? duration : usual_duration);
    return due;
}

void begin_again(Pace &pace) {
    pace.first = no_time;
}
