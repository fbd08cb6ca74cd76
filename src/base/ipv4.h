#pragma once

#include <cstdint>
#include <netinet/in.h>

// An IPv4 host and port in one number, so that threads exchange whole addresses: the address in
// bits 16 to 47, the port in bits 0 to 15, both in host order. 0 means no address.
using Ipv4Port = uint64_t;

constexpr size_t ipv4_text_size = 16; // "255.255.255.255" and its zero

// The address of a dotted-quad text and a port; 0 when the text is no dotted address.
Ipv4Port ipv4_port(const char *host, uint16_t port);

// Is it an address that can be sent to? 0.0.0.0 is none: it would mean this board.
constexpr bool has_host(Ipv4Port address) {
    return (address >> 16) != 0;
}

constexpr uint16_t port_of(Ipv4Port address) {
    return static_cast<uint16_t>(address & 0xFFFF);
}

// That port of this board.
constexpr Ipv4Port loopback_address(uint16_t port) {
    return (Ipv4Port{INADDR_LOOPBACK} << 16) | port;
}

// Writes the dotted quad into `text` of ipv4_text_size bytes and returns it.
const char *host_text(Ipv4Port address, char *text);

// To and from what the socket calls take.
sockaddr_in socket_address(Ipv4Port address);
Ipv4Port from_socket_address(const sockaddr_in &address);
