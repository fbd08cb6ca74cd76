#pragma once

// A UDP socket that sends from one of our ports and never receives.
// Stands on: base/ipv4.

#include <cstddef>
#include <cstdint>
#include <sys/socket.h>

// The kernel limits the bytes that a socket has sent and the network card has not. With one socket
// for several receivers, the fast ones wait for the slow one's datagrams. This is a second socket
// for the same port.
//
// Two sockets bound to the same port would share what arrives there. So this one is bound to the
// port at 192.0.2.1, an address reserved for documentation that no board has: nothing can arrive.
// Its datagrams specify no source address and get the one of their route, like those of a socket
// that is not bound to an address.

// Opens such a socket for the port to which `receiver`, a socket of this process, is bound on all
// addresses. Its buffer holds about `room` bytes as the kernel counts them, or less if the system
// allows less. Returns the descriptor, or -1 on failure. Not for two threads at once with the same
// `receiver`.
int open_send_socket(int receiver, uint16_t port, int room);

// Replaces the socket behind `socket`, a descriptor from open_send_socket, with a new one whose
// buffer is empty; datagrams in the old one's buffer are still sent. The descriptor number stays
// the same, so a thread that sends at the same time uses one or the other. Returns false and does
// nothing when there are no descriptors left.
bool renew_send_socket(int socket, int receiver, uint16_t port, int room);

// Prepares `message` for such a socket: it specifies no source address.
void leave_source_open(msghdr &message);

// The bytes in the socket's send buffer, as the kernel counts them: a datagram of 1300 bytes counts
// as 2304. Any socket.
int bytes_under_way(int socket);

// The size of the socket's send buffer.
int room_of(int socket);
