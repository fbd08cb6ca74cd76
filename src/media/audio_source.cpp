#include "media/audio_source.h"

#include "base/pause.h"
#include "config/config.h"
#include "net/relay.h"
#include "net/udp_endpoint.h"

#include <cstdio>
#include <pthread.h>

constexpr uint32_t silence_ms = 1000;
constexpr uint32_t loss_check_us = 1000000;

static UdpEndpoint audio_endpoint;
// The receive buffer is the payload of the relayed packet, so nothing is copied.
static RelayPacket staging;
static Relaxed<uint8_t> present; // 1: found, 0: lost; not read anywhere

static void *run_receive_thread(void * /*unused*/) {
    name_thread("audio-rx");
    precede_other_threads(true);
    udp_endpoint_run(audio_endpoint);
}

static void on_packet(uint8_t * /*data*/, uint16_t length, const char *host, uint16_t port) {
    if (config_record().audio_enabled == 0) {
        return;
    }
    if (length > relay_payload_capacity) {
        fprintf(stderr, "payload len too big: %d bytes from %s:%d\n", length, host, port);
        return;
    }
    set_payload_length(staging, length);
    relay_to_clients(relay_type_audio, staging);
}

static void on_found(const char * /*host*/) {
    fputs("Audio found\n", stderr);
    present = 1;
}

static void on_lost() {
    fputs("Audio lost\n", stderr);
    present = 0;
}

[[noreturn]] static void *run_loss_thread(void * /*unused*/) {
    name_thread("audio-loss");
    for (;;) {
        udp_endpoint_check_lost(audio_endpoint);
        sleep_us(loss_check_us);
    }
}

int init_audio_source(uint16_t port) {
    fputs("Init audio source\n", stderr);
    if (udp_endpoint_open(audio_endpoint, port, run_receive_thread) != 0) {
        return -1;
    }
    audio_endpoint.timeout_ms = silence_ms;
    audio_endpoint.on_packet = on_packet;
    audio_endpoint.on_lost = on_lost;
    audio_endpoint.on_found = on_found;
    audio_endpoint.buffer_size = relay_payload_capacity;
    audio_endpoint.buffer.store(staging.payload, std::memory_order_release);
    pthread_t thread{};
    return pthread_create(&thread, nullptr, run_loss_thread, nullptr) == 0 ? 0 : -1;
}
