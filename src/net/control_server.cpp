#include "net/control_server.h"

#include "base/clock.h"
#include "base/ipv4.h"
#include "base/pause.h"
#include "base/state_file.h"
#include "net/drop_report.h"
#include "net/payload_queue.h"
#include "net/relay.h"
#include "net/udp_endpoint.h"

#include <algorithm>
#include <cstdio>
#include <pthread.h>

constexpr uint16_t receive_size = 30000;
constexpr uint32_t peer_timeout_ms = 5000;
constexpr uint32_t housekeeping_us = 1000000;

// Handlers may rely on this; see client_payload_size.
static_assert(relay_header_size + client_payload_size <= udp_cleared_size);
static_assert(client_payload_size <= queued_payload_zeros);
static_assert(receive_size - relay_header_size <= queued_payload_limit);

static UdpEndpoint control_endpoint;
static StateFile clients_file{"/run/quillorbeacon/clients.json"};
// One byte more than is received, so that a text that fills it still ends with a zero.
static uint8_t receive_buffer[receive_size + 1];
// Set before the threads that call them are started.
static ClientTurnOf turn_of_payload;
static ClientPacketHandler handle_payload;

static PayloadQueue queue; // from the receive thread to the command thread

static void *run_receive_thread(void * /*unused*/) {
    name_thread("control-rx");
    udp_endpoint_run(control_endpoint);
}

[[noreturn]] static void *run_command_thread(void * /*unused*/) {
    name_thread("commands");
    static QueuedPayload payload;
    for (;;) {
        wait_for_payload(queue);
        while (first_payload(queue, payload)) {
            char host[ipv4_text_size];
            host_text(payload.sender, host);
            handle_payload(payload.bytes, static_cast<uint16_t>(payload.size), host,
                           port_of(payload.sender));
            // Not before: until then has_payload_of counts it.
            pop_payload(queue);
        }
    }
}

static bool is_handled_at_once(uint8_t kind, Ipv4Port sender) {
    const ClientTurn turn = turn_of_payload(kind);
    return turn == ClientTurn::at_once ||
           (turn == ClientTurn::after_own && !has_payload_of(queue, sender));
}

static void check_packet(uint8_t *data, uint16_t length, const char *host, uint16_t port) {
    if (length == relay_header_size || data[relay_magic_at] != relay_magic) {
        return;
    }
    // Of a datagram shorter than the header, the payload reads as zeros.
    const auto size =
        static_cast<uint16_t>(std::max<size_t>(length, relay_header_size) - relay_header_size);
    uint8_t *payload = data + relay_header_size;
    const Ipv4Port sender = ipv4_port(host, port);
    if (is_handled_at_once(payload[0], sender)) {
        handle_payload(payload, size, host, port);
    } else {
        push_payload(queue, sender, payload, size);
    }
}

// Called once a second, so that a flood does not fill the log as well.
static void report_dropped() {
    static uint32_t reported;
    const uint32_t dropped = queue.dropped;
    if (dropped != reported) {
        fprintf(stderr, "UDP server: Too many requests at once, %u dropped\n", dropped - reported);
        reported = dropped;
    }
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
    write_state_file(clients_file, json);
}

[[noreturn]] static void *run_housekeeping_thread(void * /*unused*/) {
    name_thread("control-sweep");
    for (;;) {
        publish_clients();
        udp_endpoint_check_lost(control_endpoint);
        report_drops(now_ms());
        report_dropped();
        sleep_us(housekeeping_us);
    }
}

static bool start_thread(void *(*entry)(void *)) {
    pthread_t thread{};
    return pthread_create(&thread, nullptr, entry, nullptr) == 0;
}

int init_control_server(uint16_t port, ClientTurnOf turn_of, ClientPacketHandler handler) {
    if (relay_init() != 0) {
        return -1;
    }
    turn_of_payload = turn_of;
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
    return start_thread(run_command_thread) && start_thread(run_housekeeping_thread) ? 0 : -1;
}
