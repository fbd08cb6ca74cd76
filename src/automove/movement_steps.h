#pragma once

#include "automove/movement_list.h"
#include "rc/rc_block.h"

#include <cstdint>
#include <string>
#include <vector>

// What playing a movement means, as functions of their inputs: the steps of a direct movement, and
// one pass of a smooth one.

// One step of a direct movement: a line to say, or a command for the data source, then a wait.
struct MovementStep {
    std::string message; // said on standard error; empty: nothing
    bool is_command;     // the texts below are sent
    const char *cmd;
    std::string param;
    std::string value;
    std::string value2;
    std::string value3;
    uint64_t wait_ms;
};

// The steps of a movement, in order.
std::vector<MovementStep> direct_movement_steps(const Movement &movement);

// Where the camera looks, in degrees.
struct CameraAngles {
    double pan;
    double tilt;
    double roll;
};

// What one pass of a smooth movement works out.
struct SmoothPass {
    GimbalValues speeds;
    bool is_arrived;
};

// The speeds toward a movement for the setting `automove_smooth_speed`. Pan and roll run against
// the sign of their error, tilt with it.
SmoothPass smooth_movement_pass(const Movement &movement, const CameraAngles &camera, int speed);

// The distance of the camera from a movement: the sum of the three errors.
double movement_distance(const Movement &movement, const CameraAngles &camera);
