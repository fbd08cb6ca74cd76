#pragma once

// The layout of the shared radio-control block.
// Stands on: nothing else of ours.

#include <cstddef>

// The RC reader process writes raw channel values and the time of its last update. The daemon keeps
// each channel's calibration in the block and publishes the resulting values. The block has 1504
// bytes; numbers are little-endian; each field is read and written in one access, and there is no
// lock. docs/source-protocol.md explains what the reader process must do.

constexpr const char *rc_block_name = "/shared_rc_raw";
constexpr size_t rc_block_size = 1504;

constexpr int rc_receiver_count = 2;
constexpr int rc_channels_per_receiver = 16;
constexpr int rc_channel_count = rc_receiver_count * rc_channels_per_receiver;
constexpr int rc_function_count = 46;

// The block.
constexpr size_t rc_state_at = 0;  // u8 per receiver: an RcState; written by the daemon
constexpr size_t rc_update_at = 4; // u32 per receiver: wall-clock milliseconds of the reader's last
                                   // update, 0: none; the daemon sets it to 0 when it is stale
constexpr size_t rc_channels_at = 16;     // channel records: RC1's 16, then RC2's 16
constexpr size_t rc_values_at = 1040;     // double per function: -1 to 1; written by the daemon
constexpr size_t rc_raw_values_at = 1408; // u16 per function; written by the daemon

// A channel record.
constexpr size_t rc_channel_size = 32;
constexpr size_t channel_raw_at = 0;        // u16, written by the reader; 0: no signal
constexpr size_t channel_min_at = 2;        // u16, calibrated
constexpr size_t channel_max_at = 4;        // u16, calibrated
constexpr size_t channel_center_at = 6;     // u16, calibrated
constexpr size_t channel_invert_at = 8;     // u8, not 0: inverted
constexpr size_t channel_value_at = 16;     // double, -1 to 1; written by the daemon
constexpr size_t channel_function_at = 24;  // u8, 0 to 45; 0: none
constexpr size_t channel_dead_band_at = 26; // u16, raw units
constexpr size_t channel_limit_at = 28;     // u16, per cent, 1 to 100
constexpr size_t channel_enable_at = 30;    // u8

static_assert(rc_channels_at + rc_channel_count * rc_channel_size == rc_values_at);
static_assert(rc_values_at + rc_function_count * sizeof(double) == rc_raw_values_at);
static_assert(rc_raw_values_at + rc_function_count * 2 + 4 == rc_block_size);
static_assert(channel_enable_at + 2 == rc_channel_size);

// The values of a receiver's state byte.
enum RcState : unsigned char {
    rc_absent = 0,
    rc_present = 1,
    rc_calibrating = 2,
};
