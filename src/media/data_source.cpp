#include "media/data_source.h"

#include "base/pause.h"
#include "base/relaxed.h"
#include "config/config.h"
#include "net/relay.h"
#include "net/udp_endpoint.h"

#include <cstdio>
#include <cstring>
#include <pthread.h>

constexpr uint32_t silence_ms = 2000;
constexpr uint32_t keep_alive_us = 1000000;
constexpr size_t command_size = 1024;

static UdpEndpoint data_endpoint;
// The receive buffer is the payload of the relayed packet, so nothing is copied. The extra byte
// makes sure that a text that fills the payload ends with a zero.
static struct {
    RelayPacket packet;
    uint8_t terminator;
} staging;
static Relaxed<uint8_t> present; // 1: found, 0: lost
static SourceCommandHandler handle_command;

static void *run_receive_thread(void * /*unused*/) {
    name_thread("data-rx");
    precede_other_threads(true);
    udp_endpoint_run(data_endpoint);
}

static void on_packet(uint8_t *data, uint16_t length, const char *host, uint16_t port) {
    set_payload_length(staging.packet, length);
    relay_to_clients(relay_type_data, staging.packet);
    if (data[0] == '{' && handle_command != nullptr) {
        // The programs that it starts must not go before the relay.
        precede_other_threads(false);
        handle_command(data, length, host, port);
        precede_other_threads(true);
    }
}

static void on_found(const char * /*host*/) {
    fputs("Data found\n", stderr);
    present = 1;
}

static void on_lost() {
    fputs("Data lost\n", stderr);
    present = 0;
}

[[noreturn]] static void *run_keep_alive_thread(void * /*unused*/) {
    name_thread("data-alive");
    for (;;) {
        const bool absolute = config_record().gimbal_movement_type != 0;
        send_data_source_command("set", "movement", "", absolute ? "abs" : "rel", "", "");
        udp_endpoint_check_lost(data_endpoint);
        sleep_us(keep_alive_us);
    }
}

int init_data_source(uint16_t port, SourceCommandHandler handler) {
    handle_command = handler;
    if (udp_endpoint_open(data_endpoint, port, run_receive_thread) != 0) {
        return -1;
    }
    data_endpoint.timeout_ms = silence_ms;
    data_endpoint.clear_before_read = true;
    data_endpoint.on_packet = on_packet;
    data_endpoint.on_lost = on_lost;
    data_endpoint.on_found = on_found;
    present = 0;
    data_endpoint.buffer_size = relay_payload_capacity;
    data_endpoint.buffer.store(staging.packet.payload, std::memory_order_release);
    pthread_t thread{};
    return pthread_create(&thread, nullptr, run_keep_alive_thread, nullptr) == 0 ? 0 : -1;
}

bool data_source_present() {
    return present != 0;
}

void send_to_data_source(const void *data, size_t length) {
    const Ipv4Port source = data_endpoint.peer.load(std::memory_order_acquire);
    if (port_of(source) != 0) {
        udp_endpoint_send(data_endpoint, data, length, socket_address(source));
    }
}

void send_data_source_command(const char *cmd, const char *name, const char *param,
                              const char *value, const char *value2, const char *value3) {
    char text[command_size];
    snprintf(text, sizeof text,
             R"(!{"cmd":"%s","name":"%s","param":"%s","value":"%s","value2":"%s","value3":"%s"})",
             cmd, name, param, value, value2, value3);
    send_to_data_source(text, strlen(text));
}
