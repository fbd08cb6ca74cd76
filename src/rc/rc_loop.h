#pragma once

// The radio-control loop: one pass every 30 ms, for the life of the process.
// Stands on: media/data_source, net/relay, rc/rc_block, rc/rc_block_layout, rc/rc_pass,
// rc/smoothing.

// Maps the shared block, clears the calibration in it and starts the loop and the smoothing
// publisher. Returns 0, or -1 when a thread cannot be started. Start-up, once.
int init_rc();
