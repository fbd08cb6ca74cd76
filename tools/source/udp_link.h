#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

// A UDP socket that is connected to one of the daemon's ports on 127.0.0.1: it sends to and hears
// nobody else, and notices when nobody listens there. Never blocks.
struct UdpLink {
    int fd = -1;
    uint16_t port = 0;
    uint64_t sent = 0;       // datagrams, without those that were refused
    bool is_refused = false; // nobody listened there when one was last sent
};

// Opens the link. False after a message.
bool open_udp_link(UdpLink &link, uint16_t port);

// Sends a datagram.
void send_datagram(UdpLink &link, const void *data, size_t length);

// Takes the next datagram that has come, cut to `size` bytes. Returns its length, or -1: none.
ssize_t receive_datagram(UdpLink &link, void *data, size_t size);
