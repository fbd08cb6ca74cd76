#pragma once

// A UDP socket to the daemon that never blocks.
// Stands on: client/clock, client/packet, client/registration.

#include "client/clock.h"
#include "client/packet.h"
#include "client/registration.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// A link may be used by one thread at a time. A program with a poll loop of its own uses it like
// this (client/wait.h has calls that block, for programs without one):
//
//     Link link;
//     open_link(link, "192.168.1.10", 5252);
//     register_for(link.registration, Streams::everything, Clock::now());
//     for (;;) {
//         const TimePoint due = step_link(link, Clock::now());
//         ... poll(): wait until link.socket is readable, or for `due` ...
//         PacketView packet{};
//         ReadResult result{};
//         while ((result = read_packet(link, packet, Clock::now())) != ReadResult::nothing) {
//             if (result == ReadResult::packet) { ... packet_kind(packet) ... }
//         }
//     }

// How the calls of client/wait.h wait on this link.
struct WaitOptions {
    double timeout = 5.0;           // seconds that a program gives the daemon for an answer
    bool (*is_stopped)() = nullptr; // if not null, called ten times a second: true ends the wait
    int output = -1;                // if not -1, a descriptor: the wait ends when its reader leaves
};

struct Link {
    int socket = -1;  // a descriptor to poll for reading; -1: not open
    std::string name; // "board.local:5252", for messages
    Registration registration;
    std::vector<uint8_t> buffer; // of the datagram that was read last
    uint32_t dropped = 0;        // datagrams for which the socket had no room, before that one
    WaitOptions wait;

    Link() = default;
    Link(const Link &) = delete;
    Link &operator=(const Link &) = delete;
    ~Link(); // closes it
};

enum class Opened {
    opened,
    host_unknown, // the host's name could not be resolved
    unreachable,  // there is no socket, or no route
};
struct OpenOutcome {
    Opened result;
    std::string reason; // in the system's words; empty when it was opened
};

// Opens a socket, close-on-exec, to a host name or IPv4 address. It receives from the daemon there
// only. Nothing is sent yet, so the daemon need not be running. Blocks while a name is resolved. A
// link that is open is closed first.
OpenOutcome open_link(Link &link, const std::string &host, uint16_t port);

// Ends the registration, if there is one, and closes the socket. The link can be opened again.
void close_link(Link &link);

// Sends a payload to the daemon. It may get lost here or on the way. False: it is longer than
// largest_client_payload, and was not sent.
bool send_payload(const Link &link, std::string_view payload);

// Sends the registration if it is due. Returns when to call this again; TimePoint::max(): never.
TimePoint step_link(Link &link, TimePoint now);

enum class ReadResult {
    packet,  // a packet of the daemon, valid until the next read
    other,   // a datagram that is not a packet; it was dropped
    refused, // nothing listens on the daemon's port
    nothing, // there is nothing to read
};
ReadResult read_packet(Link &link, PacketView &packet, TimePoint now);
