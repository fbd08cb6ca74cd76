// GPIO levels for the system tests, through the functions that the daemon calls. The file
// /run/gpio/N has the level of pin N ("0": low; anything else or no file: high). Every call is
// logged in /run/gpio/calls, but of the reads only the first for each pin; a pid file that
// gpioInitialise finds is logged too. A file /run/gpio/broken makes gpioInitialise fail. Like the
// real library, gpioInitialise installs handlers for all signals, without SA_RESTART.
#include "pigpio.h"

#include <array>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <unistd.h>

__attribute__((format(printf, 1, 2))) static void note(const char *format, ...) {
    FILE *calls = fopen("/run/gpio/calls", "ae");
    if (calls == nullptr) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    vfprintf(calls, format, arguments);
    va_end(arguments);
    fclose(calls);
}

constexpr int ended_by_library = 98;

static void handle_signal(int signal) {
    if (signal != SIGCHLD && signal != SIGPIPE && signal != SIGCONT && signal != SIGWINCH) {
        _exit(ended_by_library);
    }
}

static void take_over_signals() {
    for (int signal = 1; signal < NSIG; ++signal) {
        struct sigaction action {};
        action.sa_handler = handle_signal;
        sigaction(signal, &action, nullptr);
    }
}

int gpioCfgSocketPort(unsigned port) {
    note("gpioCfgSocketPort %u\n", port);
    return 0;
}

int gpioCfgDMAchannels(unsigned primary_channel, unsigned secondary_channel) {
    note("gpioCfgDMAchannels %u %u\n", primary_channel, secondary_channel);
    return 0;
}

int gpioInitialise() {
    note("gpioInitialise%s\n", access("/var/run/pigpio.pid", F_OK) == 0 ? " finds a pid file" : "");
    take_over_signals();
    return access("/run/gpio/broken", F_OK) == 0 ? PI_INIT_FAILED : 79;
}

int gpioSetMode(unsigned gpio, unsigned mode) {
    note("gpioSetMode %u %u\n", gpio, mode);
    return 0;
}

int gpioSetPullUpDown(unsigned gpio, unsigned pud) {
    note("gpioSetPullUpDown %u %u\n", gpio, pud);
    return 0;
}

static void note_first_read(unsigned gpio) {
    static std::array<bool, 256> seen;
    if (gpio < seen.size() && !seen[gpio]) {
        seen[gpio] = true;
        note("gpioRead %u\n", gpio);
    }
}

int gpioRead(unsigned gpio) {
    note_first_read(gpio);
    char path[32];
    snprintf(path, sizeof path, "/run/gpio/%u", gpio);
    FILE *level = fopen(path, "re");
    if (level == nullptr) {
        return 1;
    }
    const int first = fgetc(level);
    fclose(level);
    return first == '0' ? 0 : 1;
}
