#pragma once

// The layout of the shared camera state, which says where the camera points.
// Stands on: nothing else of ours.

#include <cstddef>

// Six bytes that the camera's process writes. Each angle is a signed 16-bit little-endian number of
// tenths of a degree.

constexpr const char *camera_state_name = "/shared_camstate";
constexpr size_t camera_pan_at = 0;
constexpr size_t camera_tilt_at = 2;
constexpr size_t camera_roll_at = 4;
constexpr size_t camera_state_size = 6;
