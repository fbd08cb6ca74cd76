#include "media/internal_camera.h"

#include "base/pause.h"
#include "base/relaxed.h"
#include "base/shell.h"
#include "config/config.h"
#include "net/relay.h"

#include <cstdio>
#include <pthread.h>

constexpr uint32_t supervisor_us = 1000000;
constexpr size_t command_size = 256;

// 1 while a capture thread receives data. Set with a capture's first piece, cleared at its end.
static Relaxed<uint8_t> running;

void format_capture_command(char *command, size_t size, const char *params) {
    snprintf(command, size, "raspivid -t 0 %s --flush --inline --spstimings -o -", params);
}

// A capture that has not delivered yet gets company every second, so each thread has a packet of
// its own: 60 kB of its 8 MB stack.
static void relay_stream(FILE *pipe) {
    RelayPacket packet; // NOLINT(cppcoreguidelines-pro-type-member-init): filled piece by piece
    size_t length = 0;
    while ((length = read_pipe(pipe, packet.payload, sizeof packet.payload)) > 0) {
        set_payload_length(packet, static_cast<uint16_t>(length));
        running = 1;
        relay_to_clients(relay_type_internal_camera, packet);
    }
}

static void *run_capture_thread(void * /*unused*/) {
    name_thread("camera-capture");
    fputs("Internal cam thread started\n", stderr);
    char command[command_size];
    format_capture_command(command, sizeof command, config_record().internal_camera_params);
    fprintf(stderr, "%s\n", command);
    FILE *pipe = popen(command, "re"); // NOLINT(cert-env33-c): by design
    if (pipe == nullptr) {
        return nullptr;
    }
    relay_stream(pipe);
    running = 0;
    fputs("int cam thread ended\n", stderr);
    pclose(pipe);
    return nullptr;
}

static void start_capture() {
    fputs("int cam thread start\n", stderr);
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, run_capture_thread, nullptr) == 0) {
        pthread_detach(thread);
    }
}

[[noreturn]] static void *run_supervisor_thread(void * /*unused*/) {
    name_thread("camera-super");
    for (;;) {
        if (config_record().internal_camera_enabled != 0 && running == 0) {
            start_capture();
        }
        sleep_us(supervisor_us);
    }
}

int init_internal_camera(uint16_t /*port*/) {
    pthread_t thread{};
    return pthread_create(&thread, nullptr, run_supervisor_thread, nullptr) == 0 ? 0 : -1;
}
