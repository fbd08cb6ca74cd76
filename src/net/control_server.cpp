#include "net/control_server.h"

#include "base/clock.h"
#include "base/pause.h"
#include "net/relay.h"
#include "net/udp_endpoint.h"

#include <cstdio>
#include <pthread.h>

constexpr uint16_t receive_size = 30000;
constexpr uint32_t peer_timeout_ms = 5000;
constexpr uint32_t housekeeping_us = 1000000;
constexpr const char *clients_file = "/run/quillorbeacon/clients.json";

// What the header promises a handler.
static_assert(relay_header_size + client_payload_size <= udp_cleared_size);

static UdpEndpoint control_endpoint;
// One byte more than is received, so that a text that fills it still ends in a zero.
static uint8_t receive_buffer[receive_size + 1];
// Where payloads go; set before the endpoint is opened.
static ClientPacketHandler handle_payload;

static void *run_receive_thread(void * /*unused*/) {
    name_thread("control-rx");
    udp_endpoint_run(control_endpoint);
}

static void check_packet(uint8_t *data, uint16_t length, const char *host, uint16_t port) {
    const auto payload_size = static_cast<uint16_t>(length - relay_header_size);
    if (payload_size == 0 || data[relay_magic_at] != relay_magic) {
        return;
    }
    handle_payload(data + relay_header_size, payload_size, host, port);
}

static void on_found(const char * /*host*/) {
    fputs("UDP server: UDP found\n", stderr);
}

static void on_lost() {
    fputs("UDP server: UDP lost\n", stderr);
}

static void publish_clients() {
    char json[clients_json_capacity];
    sweep_clients(relay_clients(), now_ms, json);
    FILE *file = fopen(clients_file, "we");
    if (file != nullptr) {
        fputs(json, file);
        fclose(file);
    }
}

[[noreturn]] static void *run_housekeeping_thread(void * /*unused*/) {
    name_thread("control-sweep");
    for (;;) {
        publish_clients();
        udp_endpoint_check_lost(control_endpoint);
        sleep_us(housekeeping_us);
    }
}

int init_control_server(uint16_t port, ClientPacketHandler handler) {
    if (relay_init() != 0) {
        return -1;
    }
    handle_payload = handler;
    if (udp_endpoint_open(control_endpoint, port, run_receive_thread) != 0) {
        return -1;
    }
    control_endpoint.clear_before_read = true;
    control_endpoint.on_packet = check_packet;
    control_endpoint.on_found = on_found;
    control_endpoint.on_lost = on_lost;
    control_endpoint.timeout_ms = peer_timeout_ms;
    relay_open(control_endpoint);
    control_endpoint.buffer_size = receive_size;
    control_endpoint.buffer.store(receive_buffer, std::memory_order_release);
    pthread_t thread{};
    return pthread_create(&thread, nullptr, run_housekeeping_thread, nullptr) == 0 ? 0 : -1;
}
