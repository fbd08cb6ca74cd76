#pragma once

// Simulates the gimbal.
// Stands on: automove/camera_state_layout, rc/rc_block_layout, source/source_command.

#include "source/source_command.h"

#include <cstdint>

// Three axes: pan, tilt and roll, in degrees. The gimbal turns at speeds of -1 to 1 (pan and roll
// against the sign of their speed, tilt with it), or moves by itself to the pose of a command. Each
// axis stops at 180 degrees to either side.

constexpr int gimbal_axes = 3;
constexpr double gimbal_turn_rate = 40.0; // degrees per second at full speed
constexpr double gimbal_reach = 180.0;

struct Gimbal {
    double angles[gimbal_axes] = {};
    bool is_sent = false; // moving to `target`, or holding it
    double target[gimbal_axes] = {};
};

// Takes a command of the daemon: "position" with "abs" or "hold" sends the gimbal to an absolute
// pose, given in tenths of degrees. Other commands, and values that are not numbers, change
// nothing. Returns whether it was a pose.
bool order_gimbal(Gimbal &gimbal, const SourceCommand &command);

// Turns for that long. A speed other than 0 ends the move to a pose. Speeds outside -1 to 1 count
// as the nearest of the two, and those that are not numbers as 0.
void turn_gimbal(Gimbal &gimbal, const double *speeds, double seconds);

// The largest angle of the three, without its sign.
double widest_angle(const Gimbal &gimbal);

// Read the speeds that the daemon publishes in the shared radio-control block, and write where the
// gimbal points into the shared camera state.
void read_gimbal_speeds(const uint8_t *rc_block, double *speeds);
void write_camera_state(const Gimbal &gimbal, uint8_t *state);
