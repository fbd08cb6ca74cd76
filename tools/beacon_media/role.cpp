#include "beacon_media/role.h"

#include "source/complain.h"
#include "source/signals.h"

#include <csignal>
#include <poll.h>
#include <thread>
#include <unistd.h>

bool open_role(Role &role) {
    role.signals = open_signals(true);
    role.settings = read_settings();
    return role.signals >= 0;
}

constexpr useconds_t time_to_end_us = 800000;

static bool is_to_stop() {
    sigset_t waiting;
    sigpending(&waiting);
    return sigismember(&waiting, SIGTERM) == 1 || sigismember(&waiting, SIGINT) == 1 ||
           sigismember(&waiting, SIGHUP) == 1 || sigismember(&waiting, SIGQUIT) == 1;
}

// The signals stay for the program's own thread, which usually takes them at once.
static void watch_signals(int signals) {
    pollfd waited{signals, POLLIN, 0};
    while (true) {
        if (poll(&waited, 1, -1) > 0) {
            usleep(time_to_end_us);
            if (is_to_stop()) {
                _exit(0);
            }
        }
    }
}

// When the program's own thread has taken the signal and cannot finish.
static void end_soon() {
    std::thread([] {
        usleep(time_to_end_us);
        _exit(0);
    }).detach();
}

void end_in_time(Role &role) {
    role.ends_in_time = true;
    std::thread(watch_signals, role.signals).detach();
}

bool role_goes_on(Role &role, int milliseconds) {
    role.has_reread = false;
    pollfd waited{role.signals, POLLIN, 0};
    if (poll(&waited, 1, milliseconds) <= 0) {
        return true;
    }
    switch (take_signal(role.signals)) {
    case SignalKind::stop:
        if (role.ends_in_time) {
            end_soon();
        }
        return false;
    case SignalKind::suspend:
        suspend_process();
        break;
    case SignalKind::reread:
        role.settings = read_settings();
        role.has_reread = true;
        break;
    case SignalKind::none:
        break;
    }
    return true;
}

void complain_once(Role &role, const std::string &line) {
    if (role.said != line) {
        complain("%s", line.c_str());
        role.said = line;
    }
}

void forget_complaint(Role &role) {
    role.said.clear();
}
