#pragma once

// The one function of the VideoCore host library that the daemon calls, for a build of the daemon
// that calls it on a machine without that library.

extern "C" {
// Says on standard error that it was called.
void bcm_host_init(void);
}
