#pragma once

#include "block.h"
#include "ports.h"
#include "subject.h"

#include <cstdint>
#include <vector>

// The benchmark's side of the interface: the source process, the clients and the display process,
// all in one thread that never sleeps. If a client had to be woken for each datagram, the sender
// would pay for the wake-up; in real use the clients are other machines.

struct Destination {
    int socket;
    uint32_t last_sequence; // relay sequence number of the last packet
    bool heard;             // has received a probe
    unsigned status_records;
};

struct Wire {
    std::vector<Destination> destinations; // the clients, then the display process
    int source;                            // sends to port 5000
    uint8_t *ring;                         // the subject's; null until it exists
    unsigned next_slot;
    uint16_t last_identifier;
    int stream;        // to a subject that gets packets with their headers, which the wire makes
    uint32_t sequence; // of the last of these
};

// The receive buffers of the clients.
enum class Buffers {
    large,        // so that nothing is lost on the receivers' side
    default_ones, // what a program gets that does not ask
};

Wire open_wire(int clients, Buffers buffers);
void close_wire(Wire &wire);

// Registers the clients if the subject is the daemon, opens the subject's ring, and waits until all
// destinations have been reached and nothing more arrives. Returns false after ten seconds or when
// the subject has ended.
bool connect_wire(Wire &wire, const Subject &subject);

// The daemon drops clients that do not register again within ten seconds.
void register_clients(const Wire &wire);

void send_to_subject(Wire &wire, const uint8_t *data, size_t size);

// Where to write the data of the next frame, or null when the ring is full. publish_frame makes it
// a frame.
uint8_t *next_frame(const Wire &wire);
void publish_frame(Wire &wire, uint32_t length);

// Connects a TCP viewer to the daemon that never reads. Returns its socket.
int connect_stalled_viewer();
