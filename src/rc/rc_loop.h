#pragma once

// The radio-control loop: a pass (rc_pass.h) every 30 ms for the life of the process.

// Maps the shared block, clears the calibration in it and starts the loop and the smoothing
// publisher. Start-up, once.
void init_rc();
