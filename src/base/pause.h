#pragma once

// Sleeps and busy-waits, names and precedence for threads.
// Stands on: nothing else of ours.

#include <cstdint>

// The monotonic clock in nanoseconds: for durations and waits, not for the time of day. Any thread.
int64_t monotonic_ns();

// Sleeps and yields the processor. For housekeeping: the kernel's timer slack adds 50 microseconds
// or more. Any thread.
void sleep_us(uint32_t microseconds);

// Sleeps until that time of the monotonic clock. Any thread.
void sleep_until_ns(int64_t moment_ns);

// Busy-waits until that time and returns the current time. For a few microseconds: sleeping for two
// would take 75, nearly all of it processor time. Any thread.
int64_t wait_until_ns(int64_t moment_ns);

// Names the calling thread (at most 15 characters), for `top -H` and gdb.
void name_thread(const char *name);

// Lets the calling thread go before others (nice -10), or no longer: for relaying, which must not
// wait for work that can. Without the right to do so nothing changes. Programs that the thread
// starts inherit it.
void precede_other_threads(bool before);
