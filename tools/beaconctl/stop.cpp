#include "beaconctl/stop.h"

#include <csignal>

static volatile sig_atomic_t stop_signal = 0; // written by the signal handler

static void note_stop(int signal) {
    stop_signal = signal;
}

void catch_stop_signals() {
    struct sigaction action {};
    action.sa_handler = note_stop; // no SA_RESTART: a blocked read or write is interrupted
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    struct sigaction hangup {};
    sigaction(SIGHUP, nullptr, &hangup);
    if (hangup.sa_handler != SIG_IGN) { // as nohup sets it
        sigaction(SIGHUP, &action, nullptr);
    }
    signal(SIGPIPE, SIG_IGN);
}

bool stop_requested() {
    return stop_signal != 0;
}

void forget_stop() {
    signal(SIGHUP, SIG_IGN);
    stop_signal = 0;
}
