#pragma once

// Runs the capture program of the board's own camera and relays what it writes.
// Stands on: config/config, net/relay.

#include <cstddef>
#include <cstdint>

// The capture program runs while `internal_camera_enabled` is set. Its output goes to the clients
// as relay_type_internal_camera, in pieces of up to 60000 bytes that do not follow frame
// boundaries.
//
// One capture runs at a time. Until it has delivered its first full piece it is on trial: if it
// writes nothing for a second, its process group is killed and another capture is started. Every
// fifth one in a row gets five seconds, for a camera that is slow to start.

// A capture on trial, as the supervisor sees it.
struct CaptureTrial {
    uint32_t bytes;    // that it had written at the last check
    unsigned silent_s; // seconds since then without output
    unsigned given_up; // captures in a row that were given up before it
};

// Checks the capture once a second; `bytes` is what it has written so far. Returns true to give it
// up; `trial` then belongs to the next one.
bool give_capture_up(CaptureTrial &trial, uint32_t bytes);

// Starts the supervisor. Returns 0, or -1 when its thread or descriptor cannot be created. The port
// is reserved and not used. Start-up only.
int init_internal_camera(uint16_t port);

// Formats the capture's command line into a buffer of `size` bytes. The options `params` are passed
// to the shell unquoted.
void format_capture_command(char *command, size_t size, const char *params);
