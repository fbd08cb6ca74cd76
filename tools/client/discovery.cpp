#include "client/discovery.h"

#include <arpa/inet.h>
#include <array>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

int open_discovery() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int on = 1;
    if (fd >= 0) {
        setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    }
    return fd;
}

static void ask_at(int socket, in_addr address, uint16_t port) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr = address;
    to.sin_port = htons(port);
    const std::string datagram = client_datagram(info_payload());
    // An interface that does not take it counts as one where nobody is.
    (void)!sendto(socket, datagram.data(), datagram.size(), 0,
                  reinterpret_cast<const sockaddr *>(&to), sizeof to);
}

void ask_everybody(int socket, uint16_t port) {
    ask_at(socket, in_addr{htonl(INADDR_LOOPBACK)}, port);
    ifaddrs *all = nullptr;
    if (getifaddrs(&all) != 0) {
        return;
    }
    for (const ifaddrs *each = all; each != nullptr; each = each->ifa_next) {
        const bool is_ipv4 = each->ifa_addr != nullptr && each->ifa_addr->sa_family == AF_INET;
        if (is_ipv4 && (each->ifa_flags & IFF_BROADCAST) != 0 && each->ifa_broadaddr != nullptr) {
            ask_at(socket, reinterpret_cast<const sockaddr_in *>(each->ifa_broadaddr)->sin_addr,
                   port);
        }
    }
    freeifaddrs(all);
}

std::optional<FoundBoard> next_found(int socket) {
    std::array<uint8_t, 2048> buffer{};
    sockaddr_in from{};
    for (;;) {
        socklen_t size = sizeof from;
        const ssize_t length = recvfrom(socket, buffer.data(), buffer.size(), MSG_DONTWAIT,
                                        reinterpret_cast<sockaddr *>(&from), &size);
        if (length < 0) {
            return std::nullopt;
        }
        const auto packet = parse_packet({buffer.data(), static_cast<size_t>(length)});
        const auto info = packet ? parse_info(*packet) : std::nullopt;
        if (info) {
            char text[INET_ADDRSTRLEN] = "";
            inet_ntop(AF_INET, &from.sin_addr, text, sizeof text);
            return FoundBoard{text, *info};
        }
    }
}
