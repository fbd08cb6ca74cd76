#pragma once

#include "source/source_command.h"

#include <cstdint>

// A gimbal of three axes: pan, tilt and roll, in degrees. It turns with speeds of -1 to 1, pan and
// roll against the sign of their speed and tilt with it, or by itself to where a command sent it.
// Each axis ends at 180 degrees to either side.

constexpr int gimbal_axes = 3;
constexpr double gimbal_turn_rate = 40.0; // degrees per second at full speed
constexpr double gimbal_reach = 180.0;

struct Gimbal {
    double angles[gimbal_axes] = {};
    bool is_sent = false; // on the way to, or held at, `target`
    double target[gimbal_axes] = {};
};

// Takes a command of the daemon: "position" with "abs" or "hold" sends the gimbal to an absolute
// pose, of which the values are tenths of degrees. Others, and values that are no numbers, change
// nothing. Returns whether it was a pose.
bool order_gimbal(Gimbal &gimbal, const SourceCommand &command);

// Turns for that long. A speed that is not 0 takes a gimbal off the pose that it was sent to.
// Speeds beyond -1 to 1 count as the nearest, others than numbers as 0.
void turn_gimbal(Gimbal &gimbal, const double *speeds, double seconds);

// The widest angle of the three, without its sign.
double widest_angle(const Gimbal &gimbal);

// The speeds that the daemon publishes in the shared radio-control block; and the shared camera
// state, in which the gimbal tells where it looks.
void read_gimbal_speeds(const uint8_t *rc_block, double *speeds);
void write_camera_state(const Gimbal &gimbal, uint8_t *state);
