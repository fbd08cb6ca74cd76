#pragma once

#include <cstddef>
#include <cstdint>

// The reliable file server: one KCP conversation (ikcp.h) over a UDP endpoint, usually port 8888,
// with the peer that last sent a datagram. Prepared, and not started by the daemon: files travel as
// relay packets.
//
// The server sends in stream mode. The peer must do the same, or send messages of at most 65000
// bytes in at most 128 segments: a larger one is never delivered, and nothing behind it is.

constexpr uint32_t kcp_server_conv = 21761;

// Takes the bytes that arrived, in order; `length` is at most 65000. Runs on the endpoint's receive
// thread with the transfer lock held.
using KcpDataHandler = void (*)(const char *data, int length);

// Opens the server on `port` (0: any free one) and starts its threads. `handler` may be null: then
// what arrives is read and dropped. Returns 0, or -1 when the port cannot be bound or there is no
// memory. Once; another port may be tried after a failure.
int init_kcp_server(uint16_t port, KcpDataHandler handler);

// The port the server is bound to.
uint16_t kcp_server_port();

// Queues bytes for the peer. Returns what ikcp_send returns: 0, or negative when they do not fit
// (at most 128 segments of 1376 bytes can be had at once); -1 when the server has not been started.
// Any thread but the handler's.
int kcp_server_send(const char *data, int length);
