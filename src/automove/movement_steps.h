#pragma once

// Works out what to do for a movement, as functions of their inputs.
// Stands on: automove/movement_list, rc/rc_block.

#include "automove/movement_list.h"
#include "rc/rc_block.h"

#include <cstdint>
#include <string>
#include <vector>

// One step of a direct movement: a line to print or a command for the data source, then a wait.
struct MovementStep {
    std::string message; // printed on standard error; may be empty
    bool is_command;     // send the texts below
    const char *cmd;
    std::string param;
    std::string value;
    std::string value2;
    std::string value3;
    uint64_t wait_ms;
    bool is_delay = false; // the wait is the movement's delay, which may be years
};

// The steps of a movement, in order.
std::vector<MovementStep> direct_movement_steps(const Movement &movement);

// Where the camera points, in degrees.
struct CameraAngles {
    double pan;
    double tilt;
    double roll;
};

// The result of one pass of a smooth movement.
struct SmoothPass {
    GimbalValues speeds;
    bool is_arrived;
};

// The speeds toward a movement. `speed` is the setting `automove_smooth_speed`. Pan and roll get
// the opposite sign of their error, tilt the same sign.
SmoothPass smooth_movement_pass(const Movement &movement, const CameraAngles &camera, int speed);

// The distance of the camera from a movement: the sum of the absolute errors of the three axes.
double movement_distance(const Movement &movement, const CameraAngles &camera);
