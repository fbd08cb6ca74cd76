#include "base/clock.h"

uint32_t now_ms() {
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    return milliseconds_of(time);
}
