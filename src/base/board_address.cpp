#include "base/board_address.h"

#include <cerrno>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using SocketCall = int (*)(int socket, const sockaddr *address, socklen_t length);

// Makes one call with the host on a new socket and returns its error; 0: none.
static int error_of(SocketCall call, uint32_t host, uint16_t port) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(host);
    const int result = call(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    const int error = result == 0 ? 0 : errno;
    close(fd);
    return error;
}

static bool is_multicast(uint32_t host) {
    return IN_MULTICAST(host);
}

bool is_board_host(uint32_t host) {
    // Binding to an address that is not the board's fails. Port 0: any free one.
    return !is_multicast(host) && error_of(bind, host, 0) == 0;
}

bool is_group_host(uint32_t host) {
    // A socket that may not broadcast is refused by the kernel; this sends nothing.
    return is_multicast(host) || host == INADDR_BROADCAST || error_of(connect, host, 9) == EACCES;
}
