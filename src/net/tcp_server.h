#pragma once

#include <cstddef>
#include <cstdint>

// The TCP data server: one client at a time gets the raw video blocks; what it sends is read and
// discarded.

// Listens on `port` and starts the accept thread. Returns 0, or 1: after a message, but for a
// thread that cannot be started. Start-up only.
int init_tcp_server(uint16_t port);

// Is a client connected? Any thread.
bool tcp_client_connected();

// Sends a block to the connected client; nothing when there is none. Blocks for two seconds at
// most. Only one thread may send: the one that relays video.
void tcp_send_block(const uint8_t *data, size_t length);
