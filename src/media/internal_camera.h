#pragma once

#include <cstddef>
#include <cstdint>

// The board's own camera: its capture program runs while `internal_camera_enabled` is set, and what
// it writes goes to the clients as relay_type_internal_camera, in pieces of up to 60000 bytes that
// follow no frame boundary.

// Starts the supervisor, which starts a capture every second while none delivers. Returns 0. The
// port is reserved and not used. Start-up only.
int init_internal_camera(uint16_t port);

// The capture's command line for the given options, which go to the shell as they are, in a buffer
// of `size` bytes.
void format_capture_command(char *command, size_t size, const char *params);
