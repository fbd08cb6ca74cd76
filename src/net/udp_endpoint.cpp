#include "net/udp_endpoint.h"

#include "base/board_address.h"
#include "base/clock.h"
#include "base/pause.h"
#include "base/process_end.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>

constexpr int kernel_buffer_size = 10000000;
constexpr uint32_t buffer_wait_us = 10000;
constexpr timeval send_timeout = {0, 3000};

static void set_option(int socket, int option, int value, const char *failure) {
    if (setsockopt(socket, SOL_SOCKET, option, &value, sizeof value) < 0 && failure != nullptr) {
        fputs(failure, stderr);
    }
}

static int open_socket() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    set_option(fd, SO_RCVBUF, kernel_buffer_size, "UDP receive buffer set failed\n");
    set_option(fd, SO_SNDBUF, kernel_buffer_size, "UDP send buffer set failed\n");
    set_option(fd, SO_REUSEPORT, 0, nullptr);
    set_option(fd, SO_BROADCAST, 1, nullptr);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &send_timeout, sizeof send_timeout);
    // Multicast that another program on this board has joined is not for the daemon.
    const int off = 0;
    setsockopt(fd, IPPROTO_IP, IP_MULTICAST_ALL, &off, sizeof off);
    return fd;
}

int udp_endpoint_open(UdpEndpoint &endpoint, uint16_t port, void *(*thread_entry)(void *)) {
    endpoint.rx_bytes = 0;
    endpoint.tx_bytes = 0;
    endpoint.socket = open_socket();
    sockaddr_in address = socket_address(ipv4_port("0.0.0.0", port));
    socklen_t address_length = sizeof address;
    if (bind(endpoint.socket, reinterpret_cast<sockaddr *>(&address), address_length) < 0) {
        return -1;
    }
    getsockname(endpoint.socket, reinterpret_cast<sockaddr *>(&address), &address_length);
    endpoint.local_port = ntohs(address.sin_port);
    pthread_t thread{};
    return pthread_create(&thread, nullptr, thread_entry, nullptr) == 0 ? 0 : -1;
}

// Waits for one datagram and returns its length. A failure ends the process.
static size_t receive(const UdpEndpoint &endpoint, uint8_t *buffer, sockaddr_in &sender) {
    ssize_t length = 0;
    do {
        socklen_t sender_length = sizeof sender;
        length = recvfrom(endpoint.socket, buffer, endpoint.buffer_size, 0,
                          reinterpret_cast<sockaddr *>(&sender), &sender_length);
    } while (length < 0 && errno == EINTR);
    if (length <= 0) {
        fputs("UDP read failed\n", stderr);
        end_process(exit_status_read_failed);
    }
    return static_cast<size_t>(length);
}

// Clear after the receive, not before: the kernel may have copied datagrams with a bad checksum
// into the buffer and dropped them.
static void clear_behind(uint8_t *buffer, size_t length, size_t buffer_size) {
    memset(buffer + length, 0, std::min(udp_cleared_size, buffer_size - length));
}

static void deliver(UdpEndpoint &endpoint, uint8_t *buffer, size_t length, Ipv4Port sender) {
    char host[ipv4_text_size];
    host_text(sender, host);
    endpoint.rx_bytes.add(static_cast<uint32_t>(length));
    endpoint.peer.store(sender, std::memory_order_release);
    if (endpoint.last_receive_ms == 0) {
        if (endpoint.on_found != nullptr) {
            endpoint.on_found(host);
        }
        if (endpoint.on_found_port != nullptr) {
            endpoint.on_found_port(host, port_of(sender));
        }
    }
    endpoint.last_receive_ms = now_ms();
    if (endpoint.on_packet != nullptr) {
        endpoint.on_packet(buffer, static_cast<uint16_t>(length), host, port_of(sender));
    }
}

// Whatever was sent to another kind of sender might come back to the daemon. The last sender has
// been checked: a source in full flow costs no system call.
static bool is_from_one_host(const UdpEndpoint &endpoint, Ipv4Port sender) {
    const Ipv4Port last = endpoint.peer.load(std::memory_order_relaxed);
    return has_host(sender) &&
           (host_of(sender) == host_of(last) || !is_group_host(host_of(sender)));
}

void udp_endpoint_run(UdpEndpoint &endpoint) {
    uint8_t *buffer = nullptr;
    while ((buffer = endpoint.buffer.load(std::memory_order_acquire)) == nullptr) {
        sleep_us(buffer_wait_us);
    }
    for (;;) {
        sockaddr_in sender{};
        const size_t length = receive(endpoint, buffer, sender);
        if (endpoint.clear_before_read) {
            clear_behind(buffer, length, endpoint.buffer_size);
        }
        const Ipv4Port from = from_socket_address(sender);
        if (is_from_one_host(endpoint, from)) {
            deliver(endpoint, buffer, length, from);
        }
    }
}

void udp_endpoint_check_lost(UdpEndpoint &endpoint) {
    // Read this before the clock: a datagram that arrives in between must not look 49 days old.
    const uint32_t last_receive_ms = endpoint.last_receive_ms;
    if (last_receive_ms == 0 || !udp_peer_is_lost(last_receive_ms, now_ms(), endpoint.timeout_ms)) {
        return;
    }
    if (endpoint.on_lost != nullptr) {
        endpoint.on_lost();
        endpoint.peer.store(0, std::memory_order_relaxed);
    }
    endpoint.last_receive_ms = 0;
}

static int send_datagram(const UdpEndpoint &endpoint, const void *data, size_t length,
                         const sockaddr_in &address) {
    return static_cast<int>(sendto(endpoint.socket, data, length, 0,
                                   reinterpret_cast<const sockaddr *>(&address), sizeof address));
}

int udp_endpoint_send(UdpEndpoint &endpoint, const void *data, size_t length,
                      const sockaddr_in &address) {
    endpoint.tx_bytes.add(static_cast<uint32_t>(length));
    return send_datagram(endpoint, data, length, address);
}

int udp_endpoint_send_to(UdpEndpoint &endpoint, const void *data, size_t length, const char *host,
                         uint16_t port) {
    const Ipv4Port destination = ipv4_port(host, port);
    if (destination == 0) {
        endpoint.tx_bytes.add(static_cast<uint32_t>(length));
        return -1;
    }
    return udp_endpoint_send(endpoint, data, length, socket_address(destination));
}

int udp_endpoint_reply(UdpEndpoint &endpoint, const void *data, size_t length) {
    const Ipv4Port peer = endpoint.peer.load(std::memory_order_acquire);
    if (port_of(peer) == 0) {
        return -1;
    }
    return send_datagram(endpoint, data, length, socket_address(peer));
}
