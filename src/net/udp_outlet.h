#pragma once

// Sends from an endpoint's port to several receivers: with one system call, paced, and so that a
// slow or dead link does not delay the others.
// Stands on: net/drop_report, net/pace, net/send_socket, net/udp_endpoint.

#include "base/ipv4.h"
#include "base/relaxed.h"
#include "net/pace.h"
#include "net/udp_endpoint.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <sys/socket.h>
#include <sys/uio.h>

// Normally all datagrams leave through the endpoint's own socket, one round per system call. The
// kernel limits the bytes in a socket's send buffer, so a receiver whose link is too slow for its
// traffic would fill the buffer, and nobody else would get anything.
//
// Sends do not block. When the buffer is full, a round waits a few milliseconds, within the
// socket's patience (pace.h), so a burst that the network card is still sending passes completely.
// If that does not help, each destination of the round gets a lane, its own socket for the same
// port, and another socket replaces the full one. The slow receiver's lane then fills up: rounds no
// longer wait for it, and what does not fit is dropped and counted (drop_report.h). A lane ends
// when it has had space for two seconds and is nearly empty; its destination then shares a socket
// again.

constexpr int outlet_lanes = 16;
constexpr int outlet_round_limit = 12; // maximum number of destinations in a round

// A destination's own socket.
struct Lane {
    std::atomic<uint64_t> destination; // an Ipv4Port; 0: the lane is free. Publishes `socket`.
    Relaxed<int> socket{-1};           // kept for the next destination; never closed
    Relaxed<bool> is_full;             // was full, and has not been half empty since
    Patience patience;
    int room;              // size of the socket's buffer
    int64_t short_ns;      // when the buffer was last full
    int64_t last_round_ns; // of the last round with this destination
};

// One for each endpoint that sends to several receivers; static, lives as long as the process.
struct UdpOutlet {
    // Set once, null until then; publishes the socket.
    std::atomic<UdpEndpoint *> endpoint;
    std::atomic<int> shared;         // the socket for all destinations without a lane
    std::atomic<int64_t> free_at_ns; // no round begins before this time
    Relaxed<int> lanes_used;
    // Used only by rounds.
    int spare = -1;    // the shared socket while the endpoint's own is full; never closed
    Patience patience; // with the shared socket
    int64_t next_review_ns;
    Lane lanes[outlet_lanes];
};

// A datagram in two parts, such as a header and its payload; the second may be empty. It is only
// read.
struct Datagram {
    iovec parts[2];
};

inline Datagram datagram_of(const void *first, size_t first_length, const void *second,
                            size_t second_length) {
    return {
        {{const_cast<void *>(first), first_length}, {const_cast<void *>(second), second_length}}};
}

inline Datagram datagram_of(const void *data, size_t length) {
    return datagram_of(data, length, nullptr, 0);
}

// The receivers of a round in the form that the system call takes, prepared once for as long as
// they stay the same. Must not be copied or moved: it points into itself.
struct RoundReceivers {
    int count;
    Ipv4Port destinations[outlet_round_limit];
    sockaddr_in addresses[outlet_round_limit];
    mmsghdr messages[outlet_round_limit];
    Datagram datagram; // what a round sends
};

// Prepares `receivers` for `count` destinations (at most outlet_round_limit).
void prepare_receivers(RoundReceivers &receivers, const Ipv4Port *destinations, int count);

// From now on datagrams are sent through `endpoint`; before this call nothing is sent.
void udp_outlet_open(UdpOutlet &outlet, UdpEndpoint &endpoint);

// Is it open?
bool udp_outlet_is_open(const UdpOutlet &outlet);

// Waits until a round may begin, and returns the time. `now` is the time a moment ago. A caller
// that sends rounds under a lock waits here before it takes the lock. Any thread.
int64_t udp_outlet_wait(const UdpOutlet &outlet, int64_t now);

// Sends `receivers.datagram` to all receivers, in order, those with lanes last. If one receiver
// fails, the others still get it. All count in tx_bytes, even on failure. Callers make sure that
// there is only one round at a time.
void udp_outlet_round(UdpOutlet &outlet, RoundReceivers &receivers, int64_t now);

// Sends one datagram, at the same pace. Any thread, also during a round.
void udp_outlet_single(UdpOutlet &outlet, const Datagram &datagram, Ipv4Port destination);
