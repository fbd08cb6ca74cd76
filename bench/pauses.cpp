#include "pauses.h"

#include "base/pause.h"

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <sys/prctl.h>
#include <unistd.h>

constexpr int pauses = 10000;
constexpr unsigned long least_slack_ns = 1;
constexpr unsigned long default_slack_ns = 0; // the value that the process started with

static double clock_us(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

static void sleep_two_us() {
    usleep(2);
}

static void wait_two_us() {
    wait_until_ns(monotonic_ns() + 2000);
}

static void print_pause(const char *what, void (*pause_once)()) {
    const double start_us = clock_us(CLOCK_MONOTONIC);
    const double cpu_start_us = clock_us(CLOCK_THREAD_CPUTIME_ID);
    for (int i = 0; i < pauses; ++i) {
        pause_once();
    }
    const double cpu_us = clock_us(CLOCK_THREAD_CPUTIME_ID) - cpu_start_us;
    const double wall_us = clock_us(CLOCK_MONOTONIC) - start_us;
    printf("| %s | %.1f | %.1f |\n", what, wall_us / pauses, cpu_us / pauses);
}

void print_pauses() {
    puts("| pause of 2 us | takes us | CPU us |");
    puts("|---|--:|--:|");
    print_pause("usleep(2), timer slack 50 us (the kernel's default)", sleep_two_us);
    prctl(PR_SET_TIMERSLACK, least_slack_ns);
    print_pause("usleep(2), timer slack 1 ns", sleep_two_us);
    prctl(PR_SET_TIMERSLACK, default_slack_ns);
    print_pause("a wait on the monotonic clock", wait_two_us);
}
