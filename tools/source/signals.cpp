#include "source/signals.h"

#include "source/complain.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <initializer_list>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

int open_signals(bool takes_reread) {
    sigset_t taken;
    sigemptyset(&taken);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP}) {
        struct sigaction action {};
        sigaction(number, nullptr, &action);
        if (action.sa_handler != SIG_IGN) {
            sigaddset(&taken, number);
        }
    }
    if (takes_reread) {
        sigaddset(&taken, SIGUSR1);
    }
    signal(SIGPIPE, SIG_IGN);
    sigprocmask(SIG_BLOCK, &taken, nullptr);
    const int fd = signalfd(-1, &taken, SFD_NONBLOCK | SFD_CLOEXEC);
    if (fd < 0) {
        complain("cannot wait for signals: %s", strerror(errno));
    }
    return fd;
}

SignalKind take_signal(int fd) {
    signalfd_siginfo information{};
    if (read(fd, &information, sizeof information) != static_cast<ssize_t>(sizeof information)) {
        return SignalKind::none;
    }
    switch (information.ssi_signo) {
    case SIGTSTP:
        return SignalKind::suspend;
    case SIGUSR1:
        return SignalKind::reread;
    default:
        return SignalKind::stop;
    }
}

bool wait_for_stop(int fd, int milliseconds) {
    pollfd waited{fd, POLLIN, 0};
    if (poll(&waited, 1, milliseconds) <= 0) {
        return false;
    }
    const SignalKind kind = take_signal(fd);
    if (kind == SignalKind::suspend) {
        suspend_process();
    }
    return kind == SignalKind::stop;
}

void suspend_process() {
    kill(getpid(), SIGSTOP);
}
