#pragma once

// Makes signals something that poll() can wait for.
// Stands on: source/complain.

enum class SignalKind : unsigned char {
    none,
    stop,    // SIGINT, SIGTERM, SIGHUP, SIGQUIT
    suspend, // SIGTSTP: Ctrl-Z
    reread,  // SIGUSR1
};

// Takes these signals from now on, except those that were ignored when the program started, and
// SIGUSR1 if `takes_reread` is set. Returns a descriptor that is readable when a signal has come,
// or -1 after a message. SIGPIPE is ignored.
int open_signals(bool takes_reread = false);

// The next signal that has come, if any.
SignalKind take_signal(int fd);

// Waits for that many milliseconds. True: a signal to stop came.
bool wait_for_stop(int fd, int milliseconds);

// Stops the process as SIGTSTP does; returns when it is continued.
void suspend_process();
