#pragma once

#include "block.h"
#include "ports.h"
#include "subject.h"

#include <cstdint>
#include <vector>

// The bench's side of the interface: the source process, the clients and the display process, all
// in one thread that never sleeps. A client that had to be woken up for each datagram would charge
// the wake-up to the sender; on a board the clients are other machines.

struct Destination {
    int socket;
    uint32_t last_sequence; // relay sequence number of the last packet
    bool heard;             // has received a probe
};

struct Wire {
    std::vector<Destination> destinations; // the clients, then the display process
    int source;                            // sends to port 5000
    uint8_t *ring;                         // the subject's, null before it is there
    unsigned next_slot;
    uint16_t last_identifier;
};

// A block that has arrived; valid during the call.
struct Arrival {
    Destination &destination;
    const uint8_t *block;
    size_t size;
    BlockHeader header;
    int64_t arrived_ns;
    bool well_formed; // sender, relay header and sequence number are right
};

Wire open_wire(int clients);
void close_wire(Wire &wire);

// Registers the clients where the subject is the daemon, finds its ring, and waits until all
// destinations have been reached and the line is quiet. False after ten seconds or when the
// subject has ended.
bool connect_wire(Wire &wire, const Subject &subject);

// Takes all that has arrived. `take(arrival, context)` is called for each relay packet whose type
// is `type` and that holds a block of the bench; other packets, such as status records, are
// passed over.
void drain(Wire &wire, uint8_t type, void (*take)(const Arrival &, void *), void *context);

void send_to_subject(const Wire &wire, const uint8_t *data, size_t size);

// The next free slot's place for a frame's data, or null when the ring is full. What was written
// there becomes a frame with publish_frame.
uint8_t *next_frame(const Wire &wire);
void publish_frame(Wire &wire, uint32_t length);
