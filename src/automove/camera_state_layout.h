#pragma once

#include <cstddef>

// The shared camera state: six bytes in which the camera-side process tells where the camera
// looks, each angle a signed 16-bit little-endian number of tenths of a degree.

constexpr const char *camera_state_name = "/shared_camstate";
constexpr size_t camera_pan_at = 0;
constexpr size_t camera_tilt_at = 2;
constexpr size_t camera_roll_at = 4;
constexpr size_t camera_state_size = 6;
