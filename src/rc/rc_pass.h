#pragma once

#include "config/config.h"
#include "rc/rc_block.h"
#include "rc/rc_block_layout.h"

#include <cstddef>
#include <cstdint>

// One pass of the radio-control loop: raw channel values become normalised ones, functions are
// summed, the gimbal axes are smoothed, menu and recording switches are watched. A function of the
// block, the settings, the clock and the state of the pass before; it sends nothing.

// Functions that a channel can drive and that mean something here; all others are only summed.
constexpr int function_none = 0;
constexpr int function_menu_switch = 1;
constexpr int function_pan = 2;  // in the menu: left, right
constexpr int function_tilt = 3; // in the menu: up, down
constexpr int function_roll = 4;
constexpr int function_smoothing_off = 5;
constexpr int function_record_switch = 9;
constexpr int function_record_toggle = 45;

// What the clients are told about the menu.
enum MenuCode : uint8_t {
    menu_disabled = 1,
    menu_enabled = 2,
    menu_left = 3,
    menu_right = 4,
    menu_up = 5,
    menu_down = 6,
};

enum class RecordCommand : uint8_t { start, stop };

// What one pass wants sent, in order: menu codes first.
struct RcEvents {
    MenuCode menu[3];
    size_t menu_count;
    RecordCommand record[2];
    size_t record_count;
};

// What a pass leaves to the next one.
struct RcLoopState {
    bool present[rc_receiver_count];
    GimbalValues rc;    // smoothed
    GimbalValues app;   // smoothed
    GimbalValues total; // their sums
    bool is_menu_enabled;
    int menu_switch; // the memories: the sign seen last
    int horizontal;
    int vertical;
    int record_switch;
    int record_toggle;
    bool toggle_stops; // the next toggle stops recording
};

// Runs one pass on a block; `clock` gives now_ms, `app` is what clients want of the gimbal. Says
// on standard error which receiver was found or lost. Allocates nothing, but for the channel list
// of a receiver that is found.
RcEvents run_rc_pass(uint8_t *block, const ConfigRecord &config, uint32_t (*clock)(),
                     const GimbalValues &app, RcLoopState &state);
