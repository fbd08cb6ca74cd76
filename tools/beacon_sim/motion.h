#pragma once

#include "beacon_sim/gimbal.h"
#include "beacon_sim/stick_keys.h"
#include "beacon_sim/stick_script.h"
#include "source/clocks.h"

#include <cstdint>

// What moves: the gimbal, which follows what the daemon publishes in the shared radio-control
// block, and the sticks, which a script or the keyboard writes into that block as a radio-control
// reader does: raw values and the time of the last update.

enum class StickInput : uint8_t { none, script, keys };

struct Motion {
    uint8_t *rc_block = nullptr;
    uint8_t *camera_state = nullptr;
    StickInput input = StickInput::none;
    StickScript script;
    KeySticks keys;
    Gimbal gimbal;
    double turned = 0.0; // the widest angle while the script played, in degrees
    Beat beat{20 * nanoseconds_per_millisecond};
    int64_t last_turn = 0; // monotonic_ns; 0: none yet
};

// Moves everything on, when it is due; `begin` is when scripts begin.
void run_motion(Motion &motion, int64_t now, int64_t begin);
