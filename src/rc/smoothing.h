#pragma once

#include "rc/rc_block.h"

#include <cstddef>

// The publisher of the smoothed gimbal values: three state files for other programs on the board,
// each rewritten when one of its three values changes.

// The three triples that the RC loop computes.
struct SmoothedValues {
    GimbalValues app;
    GimbalValues rc;
    GimbalValues total;
};

// Hands the values of a pass over. RC loop only.
void set_smoothed_values(const SmoothedValues &values);

// Writes a triple as the state files hold it: six decimals each, separated by commas, no line end.
void format_gimbal_values(const GimbalValues &values, char *text, size_t size);

// Starts the publisher thread, which looks ten times a second. Without a thread nothing is
// published.
void start_smoothing_publisher();
