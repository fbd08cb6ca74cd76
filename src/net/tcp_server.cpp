#include "net/tcp_server.h"

#include "base/ipv4.h"
#include "base/pause.h"
#include "base/process_end.h"
#include "net/tcp_stream.h"

#include <cerrno>
#include <cstdio>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

constexpr time_t send_timeout_s = 2;
constexpr int send_buffer_size = 3000000;
constexpr int listen_backlog = 16;
constexpr size_t receive_size = 60000;
// A client that does not answer is dropped after 25 seconds.
constexpr int keep_alive_idle_s = 10;
constexpr int keep_alive_interval_s = 5;
constexpr int keep_alive_probes = 3;

static int listen_socket = -1;

// recv and accept4, repeated when a signal interrupts them.
static ssize_t receive(int client, char *buffer, size_t size) {
    ssize_t received = 0;
    do {
        received = recv(client, buffer, size, 0);
    } while (received < 0 && errno == EINTR);
    return received;
}

static int accept_client(sockaddr_in &address) {
    int client = -1;
    do {
        socklen_t address_length = sizeof address;
        client = accept4(listen_socket, reinterpret_cast<sockaddr *>(&address), &address_length,
                         SOCK_CLOEXEC);
    } while (client < 0 && errno == EINTR);
    return client;
}

static void discard_input(int client) {
    static char buffer[receive_size];
    ssize_t received = 0;
    while ((received = receive(client, buffer, sizeof buffer)) > 0) {
        fprintf(stderr, "TCP server: Received %d bytes from TCP client\n",
                static_cast<int>(received));
    }
}

static void serve_one_client() {
    fputs("TCP server: Waiting TCP client connection...\n", stderr);
    sockaddr_in address{};
    const int client = accept_client(address);
    if (client < 0) {
        fputs("TCP server: Could not open a socket to accept data\n", stderr);
        end_process(exit_status_failure);
    }
    char host[ipv4_text_size];
    fprintf(stderr, "TCP server: Client connected with ip address: %s\n",
            host_text(from_socket_address(address), host));
    begin_tcp_stream(client);
    discard_input(client);
    end_tcp_stream();
    close(client);
}

[[noreturn]] static void *run_accept_thread(void * /*unused*/) {
    name_thread("tcp-accept");
    for (;;) {
        serve_one_client();
    }
}

// Accepted sockets inherit these.
static void set_options() {
    const timeval timeout{send_timeout_s, 0};
    const int on = 1;
    setsockopt(listen_socket, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    setsockopt(listen_socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setsockopt(listen_socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setsockopt(listen_socket, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(listen_socket, IPPROTO_TCP, TCP_KEEPIDLE, &keep_alive_idle_s, sizeof(int));
    setsockopt(listen_socket, IPPROTO_TCP, TCP_KEEPINTVL, &keep_alive_interval_s, sizeof(int));
    setsockopt(listen_socket, IPPROTO_TCP, TCP_KEEPCNT, &keep_alive_probes, sizeof(int));
    if (setsockopt(listen_socket, SOL_SOCKET, SO_SNDBUF, &send_buffer_size,
                   sizeof send_buffer_size) < 0) {
        fputs("TCP server: can't set buffer size\n", stderr);
    }
}

static int fail(const char *message) {
    fputs(message, stderr);
    return 1;
}

int init_tcp_server(uint16_t port) {
    const sockaddr_in address = socket_address(ipv4_port("0.0.0.0", port));
    listen_socket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listen_socket < 0) {
        return fail("TCP server: Could not create listen socket\n");
    }
    set_options();
    if (bind(listen_socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0) {
        return fail("TCP server: Could not bind socket\n");
    }
    if (listen(listen_socket, listen_backlog) < 0) {
        return fail("TCP server: Could not open socket for listening\n");
    }
    pthread_t thread{};
    if (!start_tcp_stream()) {
        return 1;
    }
    return pthread_create(&thread, nullptr, run_accept_thread, nullptr) == 0 ? 0 : 1;
}
