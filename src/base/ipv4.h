#pragma once

// An IPv4 address and port in one number, so that threads exchange them whole.
// Stands on: nothing else of ours.

#include <cstdint>
#include <netinet/in.h>

// The address in bits 16 to 47, the port in bits 0 to 15, both in host byte order. 0 means no
// address.
using Ipv4Port = uint64_t;

constexpr size_t ipv4_text_size = 16; // "255.255.255.255" and the terminating zero

// Packs a dotted address and a port; 0 when `host` is not a dotted address.
Ipv4Port ipv4_port(const char *host, uint16_t port);

// Can it be sent to? 0.0.0.0 cannot: it would mean this board.
constexpr bool has_host(Ipv4Port address) {
    return (address >> 16) != 0;
}

constexpr uint32_t host_of(Ipv4Port address) {
    return static_cast<uint32_t>(address >> 16);
}

constexpr uint16_t port_of(Ipv4Port address) {
    return static_cast<uint16_t>(address & 0xFFFF);
}

// The given port on the loopback address.
constexpr Ipv4Port loopback_address(uint16_t port) {
    return (Ipv4Port{INADDR_LOOPBACK} << 16) | port;
}

// Writes the dotted quad into `text` of ipv4_text_size bytes and returns it.
const char *host_text(Ipv4Port address, char *text);

// Conversion to and from the type that the socket calls use.
sockaddr_in socket_address(Ipv4Port address);
Ipv4Port from_socket_address(const sockaddr_in &address);
