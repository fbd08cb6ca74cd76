#pragma once

// The shared radio-control block: its mapping, and the calibration of its channels.
// Stands on: config/config, config/writer, rc/rc_block_layout.

#include "base/shared_memory.h"

#include <cstddef>
#include <cstdint>
#include <string>

// This module also stores the assignment of the channels to functions and the gimbal values that
// clients ask for. rc_block_layout.h has the layout.
//
// Functions that take a block work on any memory of rc_block_size bytes. Receivers are numbered 0
// and 1; the channels of a receiver are numbered 1 to 16.

// Maps the block. An existing one keeps its contents, a missing one is created; the first try
// prints which of the two. Returns null when it cannot be mapped, the first try after a message.
// Each call makes a mapping that lives as long as the process. Any thread.
uint8_t *open_rc_block(MapTry which);

// The daemon's own mapping, made by init_rc_block; null when there is none. Any thread.
uint8_t *rc_block();

// Maps the block if it is not mapped yet and returns it; null after a message on failure. Start-up,
// once.
uint8_t *init_rc_block();

// Maps the block that start-up could not map, and does what start-up would have done: clears the
// calibration and loads both receivers' stored channels. This happens before another thread sees
// the block, so that a save of the channels finds them loaded. Returns the block, or null like
// open_rc_block. RC loop only.
uint8_t *map_missing_rc_block();

// A channel's record, by its index 0 to 31.
uint8_t *rc_channel(uint8_t *block, int index);
const uint8_t *rc_channel(const uint8_t *block, int index);

// A receiver's state byte: an RcState, unless another program wrote something else. rc_absent when
// `block` is null.
uint8_t rc_receiver_state(const uint8_t *block, int receiver);

// Clears the calibration and assignment of all channels and all function values, but not what the
// reader process writes.
void clear_rc_calibration(uint8_t *block);

// Applies a JSON array of channel objects ("ch" 1 to 16, and any of "min", "c", "max", "i", "e",
// "d", "l", "f") to a receiver. A value is a number, a boolean or a string of digits. Elements
// without a valid "ch" are skipped; missing keys change nothing. Other values change nothing and
// are reported in one line. With a null `block` it only prints a message.
void load_rc_channels(uint8_t *block, int receiver, const char *json_text);

// A receiver's live channels as JSON, for clients; empty when `block` is null.
std::string rc_channels_json(const uint8_t *block, int receiver);

// A receiver's channels as JSON, for the configuration file.
std::string rc_channels_setting(const uint8_t *block, int receiver);

// Stores both receivers' channels in `rc1_channels` and `rc2_channels` and saves the configuration.
// Without a block it saves nothing and prints one line. Any thread.
void save_rc_channels();

// Calibrates: 2 starts finding the minimum and maximum, 3 ends it, 4 takes the current position as
// the centre. 3 and 4 save. Any thread.
void set_rc_state(int receiver, int state);

// Pan, tilt and roll. The full range is -1 to 1. A client can ask for slightly less than -1 (-32768
// / 32767), and sums (of several channels, or of sticks and clients) can exceed either end.
struct GimbalValues {
    double pan;
    double tilt;
    double roll;
};

// The app gimbal values: set by clients and the movement runner, read by the RC loop. Any thread.
void set_app_gimbal_values(double pan, double tilt, double roll);
GimbalValues app_gimbal_values();
