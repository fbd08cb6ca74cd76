#pragma once

// Sends datagrams to one of the daemon's ports on the loopback.
// Stands on: source/complain.

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

// Connected, so it receives from that port only and notices when nothing listens there. It never
// blocks.
struct UdpLink {
    int fd = -1;
    uint16_t port = 0;
    uint64_t sent = 0;       // datagrams, except those that were refused
    bool is_refused = false; // nothing listened there when one was last sent
};

// Opens the link. False after a message.
bool open_udp_link(UdpLink &link, uint16_t port);

// Sends a datagram.
void send_datagram(UdpLink &link, const void *data, size_t length);

// Takes the next datagram that has come, cut to `size` bytes. Returns its length, or -1 if none
// has.
ssize_t receive_datagram(UdpLink &link, void *data, size_t size);
