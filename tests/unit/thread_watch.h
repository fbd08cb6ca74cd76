#pragma once

#include <functional>

// For tests with threads: polling for a condition, and signals that interrupt a wait.

// Polls until `condition` holds, for at most 20 seconds. Returns whether it does.
bool wait_for(const std::function<bool()> &condition);

// The thread of this process with that name, 0 when there is none.
int thread_named(const char *name);

// Is the thread asleep in the kernel?
bool is_asleep(int thread);

// Waits until the thread sleeps and interrupts its system call with a signal whose handler does
// nothing. Returns false when that has not happened within 20 seconds.
bool interrupt(int thread);
