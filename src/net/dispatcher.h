#pragma once

#include <cstdint>

// Decides what to do with each payload that a client sends.

// The control server's ClientPacketHandler: runs on its receive thread.
void dispatch_client_packet(uint8_t *payload, uint16_t length, const char *host, uint16_t port);
