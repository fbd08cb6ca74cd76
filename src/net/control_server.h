#pragma once

// The control server on UDP 5252: receives what clients send, and keeps their registry.
// Stands on: net/drop_report, net/payload_queue, net/relay, net/udp_endpoint.

#include <cstddef>
#include <cstdint>

// It strips the relay header, passes each payload to a handler, and once a second sweeps the client
// registry and publishes it. A payload that takes time goes through a queue to a thread of its own;
// what finds no room in the queue is dropped and counted, with a line once a second at most.

// This many bytes of a payload can be read, however short the payload is.
constexpr size_t client_payload_size = 64;

// When a client's payload is handled.
enum class ClientTurn : uint8_t {
    at_once,   // on the receive thread
    after_own, // at once too, unless payloads of the same sender are queued
    in_order,  // on the command thread, after all that are queued
};

// Handles one client payload. `payload` is followed by at least one zero, so that a text ends, and
// by zeros up to client_payload_size bytes. `length` is the datagram's length minus the header's; 0
// for a datagram shorter than the header. The bytes are valid during the call, which runs on the
// control server's receive thread or on its command thread, as the turn says.
using ClientPacketHandler = void (*)(uint8_t *payload, uint16_t length, const char *host,
                                     uint16_t port);

// Tells the turn of a payload by its first byte. Runs on the receive thread.
using ClientTurnOf = ClientTurn (*)(uint8_t kind);

// Opens the server on `port` and starts its threads. Returns 0, or -1 when the mutex, the socket or
// a thread fails. Start-up only.
int init_control_server(uint16_t port, ClientTurnOf turn_of, ClientPacketHandler handler);
