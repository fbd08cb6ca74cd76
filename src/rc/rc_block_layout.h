#pragma once

#include <cstddef>

// The shared radio-control block, through which the RC reader process hands over raw channel
// values. Numbers are little-endian.

constexpr const char *rc_block_name = "/shared_rc_raw";
constexpr size_t rc_block_size = 1504;

constexpr size_t rc1_state_at = 0; // u8: 0 absent, 1 present and usable, 2 calibrating
constexpr size_t rc2_state_at = 1; // the same
