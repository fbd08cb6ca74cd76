#pragma once

#include <cstdint>

// The audio source server on UDP 5003: its datagrams go to all clients while `audio_enabled` is
// set.

// Starts the server. Returns 0, or -1 when the port cannot be bound. Start-up only.
int init_audio_source(uint16_t port);
