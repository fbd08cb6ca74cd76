#pragma once

// Publishes the smoothed gimbal values for other programs on the board.
// Stands on: rc/rc_block.

#include "rc/rc_block.h"

#include <cstddef>

// There are three state files; each is rewritten when one of its three values changes.

// The three triples that the RC loop computes.
struct SmoothedValues {
    GimbalValues app;
    GimbalValues rc;
    GimbalValues total;
};

// Passes the values of a pass to the publisher. RC loop only.
void set_smoothed_values(const SmoothedValues &values);

// Formats a triple for a state file: six decimals each, separated by commas, no line end.
void format_gimbal_values(const GimbalValues &values, char *text, size_t size);

// Starts the publisher thread, which checks ten times a second. Returns 0, or -1 when it cannot be
// started. Start-up only.
int start_smoothing_publisher();
