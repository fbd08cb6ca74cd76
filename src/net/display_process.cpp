#include "net/display_process.h"

#include "base/ipv4.h"

#include <cstring>
#include <sys/socket.h>

constexpr uint16_t notification_port = 5255;
constexpr Ipv4Port notification_address = loopback_address(notification_port);

// Created once at start-up; -1 until then.
static int notification_socket = -1;

void init_display_notifications() {
    notification_socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
}

void notify_display_process(const void *data, size_t length) {
    const sockaddr_in address = socket_address(notification_address);
    sendto(notification_socket, data, length, 0, reinterpret_cast<const sockaddr *>(&address),
           sizeof address);
}

void notify_display_process(const char *text) {
    notify_display_process(text, strlen(text));
}
