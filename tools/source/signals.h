#pragma once

// Signals as something to wait for: the loop sees them between its turns.

enum class SignalKind : unsigned char {
    none,
    stop,    // SIGINT, SIGTERM, SIGHUP, SIGQUIT
    suspend, // SIGTSTP: Ctrl-Z
};

// Takes these signals from now on; those that whoever started the program had ignored stay so.
// Returns the descriptor that is readable when one came, or -1 after a message. SIGPIPE is ignored.
int open_signals();

// The next signal that came, as far as one has.
SignalKind take_signal(int fd);

// Waits for that many milliseconds or for a signal to stop: true, then.
bool wait_for_stop(int fd, int milliseconds);

// Stops the process as SIGTSTP does; returns when it goes on.
void suspend_process();
