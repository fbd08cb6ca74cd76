#include "client/link.h"

#include <cerrno>
#include <cstring>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

constexpr size_t largest_datagram = 65536;
constexpr int receive_buffer = 8 << 20;

Link::~Link() {
    close_link(*this);
}

// Connected, so that it receives from the daemon only, and learns when nothing listens there.
static int connected_socket(const addrinfo &address) {
    const int fd = socket(address.ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && connect(fd, address.ai_addr, address.ai_addrlen) != 0) {
        const int reason = errno;
        close(fd);
        errno = reason;
        return -1;
    }
    return fd;
}

OpenOutcome open_link(Link &link, const std::string &host, uint16_t port) {
    close_link(link);
    link.name = host + ":" + std::to_string(port);
    link.buffer.resize(largest_datagram);
    addrinfo hints{};
    hints.ai_family = AF_INET; // the daemon speaks IPv4
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo *found = nullptr;
    const int problem = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (problem != 0) {
        return {Opened::host_unknown, gai_strerror(problem)};
    }
    link.socket = connected_socket(*found);
    const int reason = errno;
    freeaddrinfo(found);
    if (link.socket < 0) {
        return {Opened::unreachable, strerror(reason)};
    }
    // Root may exceed the system's limit; others get what the limit allows.
    if (setsockopt(link.socket, SOL_SOCKET, SO_RCVBUFFORCE, &receive_buffer,
                   sizeof receive_buffer) != 0) {
        setsockopt(link.socket, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
    }
    const int on = 1;
    setsockopt(link.socket, SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on);
    return {Opened::opened, ""};
}

void close_link(Link &link) {
    if (link.socket < 0) {
        return;
    }
    if (link.registration.streams != Streams::none) {
        send_payload(link, leave_payload());
    }
    close(link.socket);
    link.socket = -1;
    link.dropped = 0;
    link.registration = {};
}

bool send_payload(const Link &link, std::string_view payload) {
    if (payload.size() > largest_client_payload) {
        return false;
    }
    const std::string datagram = client_datagram(payload);
    // If the system does not accept the datagram, it counts as lost on the way.
    (void)!send(link.socket, datagram.data(), datagram.size(), MSG_DONTWAIT);
    return true;
}

TimePoint step_link(Link &link, TimePoint now) {
    if (const auto payload = due_registration(link.registration, now)) {
        send_payload(link, *payload);
    }
    return next_registration(link.registration);
}

// Like recv(), and notes how many datagrams the system has dropped. It tells that with each one
// from the first that it drops on.
static ssize_t receive_datagram(Link &link) {
    iovec part{link.buffer.data(), link.buffer.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof link.dropped)];
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t length = recvmsg(link.socket, &message, MSG_DONTWAIT);
    const cmsghdr *told = length < 0 ? nullptr : CMSG_FIRSTHDR(&message);
    if (told != nullptr && told->cmsg_level == SOL_SOCKET && told->cmsg_type == SO_RXQ_OVFL) {
        memcpy(&link.dropped, CMSG_DATA(told), sizeof link.dropped);
    }
    return length;
}

ReadResult read_packet(Link &link, PacketView &packet, TimePoint now) {
    const ssize_t length = receive_datagram(link);
    if (length < 0) {
        if (errno != ECONNREFUSED) {
            return ReadResult::nothing;
        }
        note_refusal(link.registration, now);
        return ReadResult::refused;
    }
    const auto parsed = parse_packet({link.buffer.data(), static_cast<size_t>(length)});
    packet = parsed.value_or(packet);
    return parsed ? ReadResult::packet : ReadResult::other;
}
