#pragma once

// The audio source server on UDP 5003.
// Stands on: config/config, net/relay, net/udp_endpoint.

#include <cstdint>

// It relays each datagram to all clients while `audio_enabled` is set.

// Starts the server. Returns 0, or -1 when the port cannot be bound. Start-up only.
int init_audio_source(uint16_t port);
