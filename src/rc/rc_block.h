#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// The shared radio-control block (rc_block_layout.h): its mapping, the channels' calibration and
// assignment, and the values the clients want the gimbal to have.
//
// Functions that take a block work on any memory of rc_block_size bytes. Receivers are numbered 0
// and 1, a receiver's channels 1 to 16.

// Maps the block, creating it when it is missing; an existing one keeps its contents. Says which on
// standard error. Returns null after a message when it cannot be mapped. Any thread; each call
// makes a mapping that lives as long as the process.
uint8_t *open_rc_block();

// The daemon's own mapping, made by init_rc_block; null when there is none. Any thread.
uint8_t *rc_block();

// Maps the block if it is not mapped yet; says so when that fails. Returns it. Start-up, once.
uint8_t *init_rc_block();

// Maps the block that start-up could not map, with what start-up would have done to it: the
// calibration is cleared and both receivers' stored channels are loaded before any other thread
// sees it, so that whoever saves the channels finds them. Returns it, or null as open_rc_block. RC
// loop only.
uint8_t *map_missing_rc_block();

// A channel's record, by its index 0 to 31.
uint8_t *rc_channel(uint8_t *block, int index);
const uint8_t *rc_channel(const uint8_t *block, int index);

// A receiver's state byte, an RcState unless another program wrote there; absent when `block` is
// null.
uint8_t rc_receiver_state(const uint8_t *block, int receiver);

// Clears calibration and assignment of all channels and all function values; what the reader
// writes stays.
void clear_rc_calibration(uint8_t *block);

// Applies a JSON array of channel objects ("ch" 1 to 16, and any of "min", "c", "max", "i", "e",
// "d", "l", "f") to a receiver. Elements without a "ch" in range, and keys that are absent, change
// nothing. `block` may be null: then a message is all.
void load_rc_channels(uint8_t *block, int receiver, const char *json_text);

// The channels of a receiver as the clients read them, live; empty when `block` is null.
std::string rc_channels_json(const uint8_t *block, int receiver);

// The channels of a receiver as the configuration file keeps them.
std::string rc_channels_setting(const uint8_t *block, int receiver);

// Stores both receivers' channels in `rc1_channels` and `rc2_channels` and saves the configuration.
// Nothing when there is no block. Any thread.
void save_rc_channels();

// Calibration: 2 begins finding minimum and maximum, 3 ends it, 4 takes the centre. Ending and
// centring save. Any thread.
void set_rc_state(int receiver, int state);

// Pan, tilt and roll. 1 is the whole way; a client can ask for a trifle beyond -1 (-32768 / 32767),
// and sums, of sticks and clients or of several channels, go beyond either end.
struct GimbalValues {
    double pan;
    double tilt;
    double roll;
};

// What a client or the movement runner wants the gimbal to do; read by the RC loop. Any thread.
void set_app_gimbal_values(double pan, double tilt, double roll);
GimbalValues app_gimbal_values();
