#pragma once

// The reliable file server, which the daemon does not start.
// Stands on: include/ikcp, net/udp_endpoint, transfer/transfer_lock.

#include <cstddef>
#include <cstdint>

// One KCP conversation (ikcp.h) over a UDP endpoint, usually port 8888, with the peer that last
// sent a datagram. The daemon sends files as relay packets instead.
//
// The server sends in stream mode. The peer must do the same, or send messages of at most 65000
// bytes in at most 128 segments: a larger message is never delivered, and neither is anything after
// it.

constexpr uint32_t kcp_server_conv = 21761;

// Receives the bytes that arrived, in order; `length` is at most 65000. Runs on the endpoint's
// receive thread with the transfer lock held.
using KcpDataHandler = void (*)(const char *data, int length);

// Opens the server on `port` (0: any free port) and starts its threads. With a null `handler`,
// received data is dropped. Returns 0, or -1 when the port cannot be bound or memory runs out.
// Once; after a failure another port may be tried.
int init_kcp_server(uint16_t port, KcpDataHandler handler);

// The port the server is bound to.
uint16_t kcp_server_port();

// Queues bytes for the peer. Returns the result of ikcp_send: 0, or a negative number when they do
// not fit (at most 128 segments of 1376 bytes in one call); -1 when the server has not been
// started. Any thread but the handler's.
int kcp_server_send(const char *data, int length);
