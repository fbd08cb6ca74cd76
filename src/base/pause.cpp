#include "base/pause.h"

#include <ctime>
#include <pthread.h>

constexpr int64_t datagram_pause_ns = 2000;

static int64_t monotonic_ns() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<int64_t>(time.tv_sec) * 1000000000 + time.tv_nsec;
}

void sleep_us(uint32_t microseconds) {
    timespec rest{};
    rest.tv_sec = microseconds / 1000000;
    rest.tv_nsec = static_cast<long>(microseconds % 1000000) * 1000;
    while (nanosleep(&rest, &rest) != 0) {
    }
}

void pause_after_datagram() {
    const int64_t end = monotonic_ns() + datagram_pause_ns;
    while (monotonic_ns() < end) {
    }
}

void name_thread(const char *name) {
    pthread_setname_np(pthread_self(), name);
}
