#pragma once

#include <cstdint>

// Sleeps for that many microseconds, giving the processor away. For housekeeping: a sleep costs
// the kernel's timer slack (50 microseconds and more) on top of its length. Any thread.
void sleep_us(uint32_t microseconds);

// Waits two microseconds on the monotonic clock without giving the processor away: the pause
// after each relayed datagram, which spreads the burst that a large frame makes. A sleep of two
// microseconds would cost 75, nearly all of it processor time. Any thread.
void pause_after_datagram();

// Names the calling thread (at most 15 characters) for `top -H` and gdb.
void name_thread(const char *name);
