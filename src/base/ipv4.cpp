#include "base/ipv4.h"

#include <arpa/inet.h>

static Ipv4Port pack(uint32_t host, uint16_t port) {
    return (static_cast<Ipv4Port>(host) << 16) | port;
}

Ipv4Port ipv4_port(const char *host, uint16_t port) {
    in_addr address{};
    if (inet_aton(host, &address) == 0) {
        return 0;
    }
    return pack(ntohl(address.s_addr), port);
}

const char *host_text(Ipv4Port address, char *text) {
    const in_addr host{htonl(static_cast<uint32_t>(address >> 16))};
    return inet_ntop(AF_INET, &host, text, ipv4_text_size);
}

sockaddr_in socket_address(Ipv4Port address) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port_of(address));
    result.sin_addr.s_addr = htonl(static_cast<uint32_t>(address >> 16));
    return result;
}

Ipv4Port from_socket_address(const sockaddr_in &address) {
    return pack(ntohl(address.sin_addr.s_addr), ntohs(address.sin_port));
}
