#include "net/send_socket.h"

#include "base/ipv4.h"

#include <cstring>
#include <fcntl.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <unistd.h>

constexpr const char *nobodys_address = "192.0.2.1";

static void set_option(int socket, int level, int option, int value) {
    setsockopt(socket, level, option, &value, sizeof value);
}

int open_send_socket(int receiver, uint16_t port, int room) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    if (fd < 0) {
        return -1;
    }
    set_option(fd, SOL_SOCKET, SO_SNDBUF, room / 2); // the kernel doubles it
    set_option(fd, SOL_SOCKET, SO_BROADCAST, 1);
    set_option(fd, IPPROTO_IP, IP_FREEBIND, 1);
    const sockaddr_in address = socket_address(ipv4_port(nobodys_address, port));
    // Both sockets must allow it. The receiver does so only now, so that no other program can share
    // the port.
    set_option(fd, SOL_SOCKET, SO_REUSEADDR, 1);
    set_option(receiver, SOL_SOCKET, SO_REUSEADDR, 1);
    const int result = bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    set_option(receiver, SOL_SOCKET, SO_REUSEADDR, 0);
    if (result < 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool renew_send_socket(int socket, int receiver, uint16_t port, int room) {
    const int fresh = open_send_socket(receiver, port, room);
    if (fresh < 0) {
        return false;
    }
    dup3(fresh, socket, O_CLOEXEC);
    close(fresh);
    return true;
}

// The control message sent with each datagram: any interface, any source address.
union OpenSource {
    cmsghdr header;
    uint8_t bytes[CMSG_SPACE(sizeof(in_pktinfo))];
};

static OpenSource make_open_source() {
    OpenSource source{};
    memset(source.bytes, 0, sizeof source.bytes);
    source.header.cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
    source.header.cmsg_level = IPPROTO_IP;
    source.header.cmsg_type = IP_PKTINFO;
    return source;
}

void leave_source_open(msghdr &message) {
    static OpenSource source = make_open_source();
    message.msg_control = &source;
    message.msg_controllen = sizeof source;
}

int bytes_under_way(int socket) {
    int bytes = 0;
    ioctl(socket, SIOCOUTQ, &bytes);
    return bytes;
}

int room_of(int socket) {
    int room = 0;
    socklen_t length = sizeof room;
    getsockopt(socket, SOL_SOCKET, SO_SNDBUF, &room, &length);
    return room;
}
