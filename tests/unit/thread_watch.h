#pragma once

#include <functional>

// For tests with threads of their own: waiting by looking, and signals that end a wait.

// Looks until `condition` holds, for 20 seconds at most. Did it?
bool wait_for(const std::function<bool()> &condition);

// The thread of this process with that name, 0 when there is none.
int thread_named(const char *name);

// Does the thread sleep in the kernel?
bool is_asleep(int thread);

// Waits until the thread sleeps, and ends its system call by a signal whose handler does nothing.
// False when that did not come about in 20 seconds.
bool interrupt(int thread);
