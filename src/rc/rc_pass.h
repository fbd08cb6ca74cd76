#pragma once

// One pass of the radio-control loop, as a function of its inputs.
// Stands on: config/config, rc/rc_block, rc/rc_block_layout.

#include "config/config.h"
#include "rc/rc_block.h"
#include "rc/rc_block_layout.h"

#include <cstddef>
#include <cstdint>

// A pass normalises raw channel values, sums them per function, smooths the gimbal axes and watches
// the menu and recording switches. It depends only on the block, the settings, the clock and the
// state of the previous pass, and it sends nothing.

// Functions that the daemon acts on; all others are only summed.
constexpr int function_none = 0;
constexpr int function_menu_switch = 1;
constexpr int function_pan = 2;  // in the menu: left, right
constexpr int function_tilt = 3; // in the menu: up, down
constexpr int function_roll = 4;
constexpr int function_smoothing_off = 5;
constexpr int function_record_switch = 9;
constexpr int function_record_toggle = 45;

// Menu codes, as clients receive them.
enum MenuCode : uint8_t {
    menu_disabled = 1,
    menu_enabled = 2,
    menu_left = 3,
    menu_right = 4,
    menu_up = 5,
    menu_down = 6,
};

enum class RecordCommand : uint8_t { start, stop };

// What to send after a pass, in order: menu codes first.
struct RcEvents {
    MenuCode menu[3];
    size_t menu_count;
    RecordCommand record[2];
    size_t record_count;
};

// What one pass passes on to the next.
struct RcLoopState {
    bool present[rc_receiver_count];
    GimbalValues rc;    // smoothed
    GimbalValues app;   // smoothed
    GimbalValues total; // their sums
    bool is_menu_enabled;
    int menu_switch; // this and the four below: the last sign or direction seen
    int horizontal;
    int vertical;
    int record_switch;
    int record_toggle;
    bool toggle_stops; // the next toggle stops recording
};

// Runs one pass on a block. `clock` is now_ms or a test's clock, `app` the app gimbal values.
// Reports on standard error when a receiver is found or lost. Allocates memory only for the channel
// list of a receiver that was found.
RcEvents run_rc_pass(uint8_t *block, const ConfigRecord &config, uint32_t (*clock)(),
                     const GimbalValues &app, RcLoopState &state);
