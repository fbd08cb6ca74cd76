#pragma once

#include <cstddef>
#include <cstdint>

// The control server on UDP 5252: it receives what clients send, strips the relay header and
// hands the payload on, and keeps the client registry swept and published.

constexpr uint16_t control_port = 5252;

// So many bytes of a client's payload can be read, however short it is.
constexpr size_t client_payload_size = 64;

// Handles one client payload. `payload` is followed by zeros: by one at least, so that a text ends,
// and by as many as make it client_payload_size bytes. `length` is the datagram's length less the
// header's, modulo 65536: for a datagram shorter than a header it is near 65535, and `payload` is
// client_payload_size zeros. The bytes are valid during the call, which runs on the control
// server's receive thread.
using ClientPacketHandler = void (*)(uint8_t *payload, uint16_t length, const char *host,
                                     uint16_t port);

// Opens the server on `port`. Returns 0, or -1 when the mutex or the socket fails. Start-up only.
int init_control_server(uint16_t port, ClientPacketHandler handler);
