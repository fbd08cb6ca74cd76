#pragma once

// A UDP socket with a receive thread, which notices when its peer falls silent.
// Stands on: base/board_address, base/clock, base/ipv4, base/pause, base/process_end, base/relaxed.

#include "base/ipv4.h"
#include "base/relaxed.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

// How many bytes after a datagram read as zeros on an endpoint with `clear_before_read`, up to the
// end of the buffer. Clearing the whole buffer for each datagram would cost more than receiving it,
// and nobody reads further: a text ends at its first zero, and of a client's request at most 20
// bytes are read, however short the datagram.
constexpr size_t udp_cleared_size = 128;

// One IPv4 UDP socket bound to a local port. Endpoints are static objects that live as long as the
// process.
//
// To start one, the owner calls udp_endpoint_open. When that returns 0, the owner stores
// `timeout_ms`, `clear_before_read`, the callbacks and `buffer_size`, and `buffer` last: the
// receive thread is already running and waits until `buffer` is set.
//
// Only the receive thread calls `on_packet`, `on_found` and `on_found_port`; `on_lost` is called by
// the thread that runs udp_endpoint_check_lost.
struct UdpEndpoint {
    // Called for every datagram. The bytes belong to the endpoint and are valid only during the
    // call.
    void (*on_packet)(uint8_t *data, uint16_t length, const char *peer_host, uint16_t peer_port);
    // Called once when the peer falls silent.
    void (*on_lost)();
    // Called on the first datagram after a silence, in this order.
    void (*on_found)(const char *peer_host);
    void (*on_found_port)(const char *peer_host, uint16_t peer_port);

    uint32_t timeout_ms = 1000; // silence after which the peer is lost
    bool clear_before_read;     // udp_cleared_size bytes after each datagram read as zeros
    Relaxed<uint32_t> rx_bytes; // received since open
    Relaxed<uint32_t> tx_bytes; // passed to udp_endpoint_send and _send_to since open
    // Ipv4Port of the last sender; 0: none. Publishes `socket` to threads that send to the peer.
    std::atomic<uint64_t> peer;

    // The receive buffer, which belongs to the owner. `buffer` publishes `buffer_size` and all
    // fields above that the owner sets.
    std::atomic<uint8_t *> buffer;
    uint16_t buffer_size;

    uint32_t local_port; // the port it is bound to, host byte order
    int socket;
    Relaxed<uint32_t> last_receive_ms; // now_ms() at the last datagram; 0: no peer
};

// Opens the socket (blocking, close-on-exec, 10000000-byte kernel buffers, broadcast allowed),
// binds it to `port` on all addresses and starts `thread_entry`, which must run udp_endpoint_run
// on this endpoint. Returns 0, or -1 when the port cannot be bound: then no thread is started.
int udp_endpoint_open(UdpEndpoint &endpoint, uint16_t port, void *(*thread_entry)(void *));

// The receive loop. A failed receive or an empty datagram ends the process with status 3; a receive
// interrupted by a signal is repeated. A datagram whose sender is 0.0.0.0, a broadcast address or a
// multicast group is dropped: it finds no peer and reaches no callback.
[[noreturn]] void udp_endpoint_run(UdpEndpoint &endpoint);

// Calls `on_lost` and forgets the peer when nothing has arrived for more than `timeout_ms`. The
// owner calls this once a second from its housekeeping thread. Without `on_lost`,
// udp_endpoint_reply can still reach the peer.
void udp_endpoint_check_lost(UdpEndpoint &endpoint);

// The test that udp_endpoint_check_lost uses: is a peer last heard at `last_receive_ms` lost at
// `now`?
constexpr bool udp_peer_is_lost(uint32_t last_receive_ms, uint32_t now, uint32_t timeout_ms) {
    return timeout_ms < now - last_receive_ms;
}

// Send one datagram and return the result of sendto, or -1 when `host` is not a dotted address. Any
// thread, several at once. A send waits at most a few milliseconds for space in the kernel's
// buffer.
// The length is added to tx_bytes even on failure.
int udp_endpoint_send_to(UdpEndpoint &endpoint, const void *data, size_t length, const char *host,
                         uint16_t port);
int udp_endpoint_send(UdpEndpoint &endpoint, const void *data, size_t length,
                      const sockaddr_in &address);

// Sends one datagram to the last sender; returns -1 and sends nothing when there is none. Not
// counted in tx_bytes. Any thread.
int udp_endpoint_reply(UdpEndpoint &endpoint, const void *data, size_t length);
