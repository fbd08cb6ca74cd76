#pragma once

#include "base/ipv4.h"
#include "base/relaxed.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

// How many bytes read as zeros behind a datagram of an endpoint with `clear_before_read`, as far as
// the buffer reaches. Clearing all of a buffer for each datagram would cost more than receiving it.
// Nobody looks as far: a text ends with the first zero; of a client's request 20 bytes may be
// looked at, however short the datagram.
constexpr size_t udp_cleared_size = 128;

// One IPv4 UDP socket bound to a local port, with a receive thread, callbacks, and a detector of
// lost and found peers. Endpoints are static objects that live as long as the process.
//
// Calling order: udp_endpoint_open; when it returns 0 the owner stores `timeout_ms`,
// `clear_before_read`, the callbacks and `buffer_size`, and `buffer` last: the receive thread is
// already running and idles until `buffer` is there.
//
// The receive thread alone calls `on_packet`, `on_found` and `on_found_port`; `on_lost` is called
// by the thread that runs udp_endpoint_check_lost.
struct UdpEndpoint {
    // Called for every datagram. The bytes belong to the endpoint and are valid during the call.
    void (*on_packet)(uint8_t *data, uint16_t length, const char *peer_host, uint16_t peer_port);
    // Called once when the peer falls silent.
    void (*on_lost)();
    // Called on the first datagram after silence, in this order.
    void (*on_found)(const char *peer_host);
    void (*on_found_port)(const char *peer_host, uint16_t peer_port);

    uint32_t timeout_ms = 1000; // silence after which the peer is lost
    bool clear_before_read;     // udp_cleared_size bytes behind each datagram read as zeros
    Relaxed<uint32_t> rx_bytes; // received since open
    Relaxed<uint32_t> tx_bytes; // handed to udp_endpoint_send and _send_to since open
    // Ipv4Port of the last sender: peer_host and peer_port; 0: none. Publishes `socket` to threads
    // that send to the peer.
    std::atomic<uint64_t> peer;

    // The receive buffer, owned by the owner. `buffer` publishes every field above that the owner
    // sets, and `buffer_size`.
    std::atomic<uint8_t *> buffer;
    uint16_t buffer_size;

    uint32_t local_port; // the port bound, host order
    int socket;
    Relaxed<uint32_t> last_receive_ms; // now_ms at the last datagram; 0: no peer
};

// Opens the socket (blocking, close-on-exec, 10000000-byte kernel buffers, broadcast allowed),
// binds it to `port` on all addresses and starts `thread_entry`, which must run udp_endpoint_run
// on this endpoint. Returns 0, or -1 when the port cannot be bound: then no thread is started.
int udp_endpoint_open(UdpEndpoint &endpoint, uint16_t port, void *(*thread_entry)(void *));

// The receive loop. A receive that fails, or an empty datagram, ends the process with status 3; one
// that a signal interrupts is begun anew.
[[noreturn]] void udp_endpoint_run(UdpEndpoint &endpoint);

// Calls `on_lost` and forgets the peer when nothing came for more than `timeout_ms`; the owner
// calls it once a second from its housekeeping thread. Without `on_lost` the peer stays known to
// udp_endpoint_reply.
void udp_endpoint_check_lost(UdpEndpoint &endpoint);

// The rule of udp_endpoint_check_lost: was a peer heard at `last_receive_ms` lost by `now`?
constexpr bool udp_peer_is_lost(uint32_t last_receive_ms, uint32_t now, uint32_t timeout_ms) {
    return timeout_ms < now - last_receive_ms;
}

// Sends one datagram and returns what sendto returns; -1 also when `host` is no dotted address.
// Any thread; threads do not disturb each other. The length counts in tx_bytes whatever happens.
int udp_endpoint_send_to(UdpEndpoint &endpoint, const void *data, size_t length, const char *host,
                         uint16_t port);
int udp_endpoint_send(UdpEndpoint &endpoint, const void *data, size_t length,
                      const sockaddr_in &address);

// Sends one datagram to the last sender; -1 without sending when there is none. Any thread. Does
// not count in tx_bytes.
int udp_endpoint_reply(UdpEndpoint &endpoint, const void *data, size_t length);
