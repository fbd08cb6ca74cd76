#pragma once

// Asks the kernel what an IPv4 address means on this board.
// Stands on: nothing else of ours.

#include <cstdint>

// Hosts are in host byte order. The answers change with the board's addresses. Each call opens a
// socket for a moment; when none can be had, the answer is no. Any thread.

// Does a datagram to this host arrive on this board? True for its own addresses, 127.0.0.0/8,
// 0.0.0.0, and the broadcast addresses of its networks. False for multicast.
bool is_board_host(uint32_t host);

// Does the host stand for several at once: a multicast group, 255.255.255.255, or the broadcast
// address of one of the board's networks?
bool is_group_host(uint32_t host);
