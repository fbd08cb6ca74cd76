#pragma once

// Moves the gimbal and the sticks as time goes on.
// Stands on: beacon_sim/gimbal, beacon_sim/stick_keys, beacon_sim/stick_script, rc/rc_block_layout,
// source/clocks.

#include "beacon_sim/gimbal.h"
#include "beacon_sim/stick_keys.h"
#include "beacon_sim/stick_script.h"
#include "source/clocks.h"

#include <cstdint>

// The gimbal follows the speeds that the daemon publishes in the shared radio-control block. The
// sticks come from a script or the keyboard, and are written into that block as a radio-control
// reader does: raw values and the time of the last update.

enum class StickInput : uint8_t { none, script, keys };

struct Motion {
    uint8_t *rc_block = nullptr;
    uint8_t *camera_state = nullptr;
    StickInput input = StickInput::none;
    StickScript script;
    KeySticks keys;
    Gimbal gimbal;
    double turned = 0.0; // the largest angle while the script played, in degrees
    Beat beat{20 * nanoseconds_per_millisecond};
    int64_t last_turn = 0; // monotonic_ns; 0: none yet
};

// Moves what is due at `now`; scripts started at `begin`. Both are monotonic_ns.
void run_motion(Motion &motion, int64_t now, int64_t begin);
