#include "base/pause.h"

#include <cerrno>
#include <ctime>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

constexpr int64_t second_ns = 1000000000;
constexpr int relaying_nice = -10;

int64_t monotonic_ns() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<int64_t>(time.tv_sec) * second_ns + time.tv_nsec;
}

void sleep_us(uint32_t microseconds) {
    timespec rest{};
    rest.tv_sec = microseconds / 1000000;
    rest.tv_nsec = static_cast<long>(microseconds % 1000000) * 1000;
    while (nanosleep(&rest, &rest) != 0) {
    }
}

void sleep_until_ns(int64_t moment_ns) {
    timespec moment{};
    moment.tv_sec = moment_ns / second_ns;
    moment.tv_nsec = static_cast<long>(moment_ns % second_ns);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &moment, nullptr) == EINTR) {
    }
}

int64_t wait_until_ns(int64_t moment_ns) {
    int64_t now = monotonic_ns();
    while (now < moment_ns) {
        now = monotonic_ns();
    }
    return now;
}

void name_thread(const char *name) {
    pthread_setname_np(pthread_self(), name);
}

void precede_other_threads(bool before) {
    // On Linux a priority is a thread's own. The first thread has the one that the process was
    // started with.
    const int nice =
        before ? relaying_nice : getpriority(PRIO_PROCESS, static_cast<id_t>(getpid()));
    setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), nice);
}
