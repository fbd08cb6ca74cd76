#pragma once

// Stands in for the VideoCore host library, so that a daemon that calls it can be built on a
// machine without it. It has the one function that the daemon calls.

extern "C" {
// Prints a line on standard error.
void bcm_host_init(void);
}
