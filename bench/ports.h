#pragma once

#include <cstdint>
#include <netinet/in.h>

// The ports and addresses that the daemon and the two baselines use.

constexpr uint16_t data_port = 5000;
constexpr uint16_t control_port = 5252;
constexpr uint16_t display_port = 5253; // receives a copy of every data packet
constexpr uint16_t client_port = 6000;
constexpr int most_clients = 10;

inline sockaddr_in loopback_address(uint32_t host, uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK - 1 + host);
    address.sin_port = htons(port);
    return address;
}

// 127.0.0.1 is the board, clients 0 to 9 are 127.0.0.2 to 127.0.0.11.
inline sockaddr_in board_address(uint16_t port) {
    return loopback_address(1, port);
}

inline sockaddr_in client_address(int client) {
    return loopback_address(2 + static_cast<uint32_t>(client), client_port);
}
