#include "source/udp_link.h"

#include "source/complain.h"

#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>

bool open_udp_link(UdpLink &link, uint16_t port) {
    sockaddr_in daemon{};
    daemon.sin_family = AF_INET;
    daemon.sin_port = htons(port);
    daemon.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    link.port = port;
    link.fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (link.fd < 0 ||
        connect(link.fd, reinterpret_cast<const sockaddr *>(&daemon), sizeof daemon) != 0) {
        complain("cannot reach 127.0.0.1:%d: %s", port, strerror(errno));
        return false;
    }
    return true;
}

// Notes that nothing listens. On the loopback that answer usually comes at once.
static bool take_refusal(const UdpLink &link) {
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(link.fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == ECONNREFUSED;
}

void send_datagram(UdpLink &link, const void *data, size_t length) {
    const bool was_refused = take_refusal(link);
    const ssize_t result = send(link.fd, data, length, 0);
    link.is_refused = take_refusal(link) || was_refused;
    link.sent += result >= 0 && !link.is_refused ? 1 : 0;
}

ssize_t receive_datagram(UdpLink &link, void *data, size_t size) {
    ssize_t length = recv(link.fd, data, size, 0);
    if (length < 0 && errno == ECONNREFUSED) {
        link.is_refused = true;
        length = recv(link.fd, data, size, 0);
    }
    return length;
}
