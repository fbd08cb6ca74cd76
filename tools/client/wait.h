#pragma once

// Calls that wait for the daemon, for programs that do one thing after the other.
// Stands on: client/link, client/request, client/status_record.

#include "client/link.h"
#include "client/request.h"
#include "client/status_record.h"

// All of them keep the registration up while they wait, and end early as link.wait says.

enum class Received {
    packet,
    timed_out,
    refused,     // nothing listens on the daemon's port
    stopped,     // wait.is_stopped() was true
    output_gone, // the reader of wait.output has left
};

// Waits for the next packet, at most until the deadline. The packet is valid until the next read.
Received receive(Link &link, PacketView &packet, TimePoint deadline);

// Drops packets until the deadline, or until receive() returns anything but a packet.
void drop_packets(Link &link, TimePoint deadline);

// Waits for the next status record. Only registered clients get them.
Received next_status(Link &link, StatusRecord &record, TimePoint deadline);

enum class Outcome {
    answered,
    silent,  // no answer in the request's time
    refused, // nothing listens on the daemon's port
    stopped, // the wait ended early, as link.wait says
};

// Sends the request until it is answered or given up.
Outcome ask(Link &link, Request request);
