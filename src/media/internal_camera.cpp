#include "media/internal_camera.h"

#include "base/pause.h"
#include "base/relaxed.h"
#include "base/shell.h"
#include "config/config.h"
#include "net/relay.h"

#include <cerrno>
#include <cstdio>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

constexpr uint32_t supervisor_us = 1000000;
constexpr size_t command_size = 256;
constexpr unsigned patience_s = 1;
constexpr unsigned long_patience_s = 5;
constexpr unsigned long_patience_every = 5;

// 1 while a capture thread receives data: set with a capture's first piece, cleared at its end.
static Relaxed<uint8_t> running;

// The capture: its thread is joined before the next one is started.
static struct {
    pthread_t thread;
    bool is_started;            // and not joined yet; supervisor only
    int stop;                   // descriptor that becomes readable when the capture must end
    Relaxed<uint8_t> has_ended; // only joining the thread is left to do
    Relaxed<uint32_t> bytes;    // received by the capture so far, wraps
} capture;

void format_capture_command(char *command, size_t size, const char *params) {
    snprintf(command, size, "raspivid -t 0 %s --flush --inline --spstimings -o -", params);
}

bool give_capture_up(CaptureTrial &trial, uint32_t bytes) {
    if (bytes != trial.bytes) {
        trial.bytes = bytes;
        trial.silent_s = 0;
        return false;
    }
    const bool is_long = trial.given_up % long_patience_every == long_patience_every - 1;
    ++trial.silent_s;
    if (trial.silent_s < (is_long ? long_patience_s : patience_s)) {
        return false;
    }
    trial = {0, 0, trial.given_up + 1};
    return true;
}

// Waits until the pipe can be read. Returns false when the capture must end.
static bool wait_for_data(int pipe) {
    pollfd wanted[] = {{pipe, POLLIN, 0}, {capture.stop, POLLIN, 0}};
    return TEMP_FAILURE_RETRY(poll(wanted, 2, -1)) > 0 && wanted[1].revents == 0;
}

// Reads a full piece, or less at the end of the output. Returns 0 at the end and when the capture
// must end.
static size_t read_piece(int pipe, uint8_t *data, size_t size) {
    size_t used = 0;
    while (used < size) {
        if (!wait_for_data(pipe)) {
            return 0;
        }
        const ssize_t length = TEMP_FAILURE_RETRY(read(pipe, data + used, size - used));
        if (length <= 0) {
            break;
        }
        used += static_cast<size_t>(length);
        capture.bytes.add(static_cast<uint32_t>(length));
    }
    return used;
}

static void relay_stream(int pipe) {
    RelayPacket packet; // NOLINT(cppcoreguidelines-pro-type-member-init): filled piece by piece
    size_t length = 0;
    while ((length = read_piece(pipe, packet.payload, sizeof packet.payload)) > 0) {
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
    ShellCommand program{};
    if (start_shell(command, program)) {
        relay_stream(program.output);
        running = 0;
        fputs("int cam thread ended\n", stderr);
        end_shell(program);
    }
    capture.has_ended = 1;
    return nullptr;
}

static void start_capture() {
    fputs("int cam thread start\n", stderr);
    capture.has_ended = 0;
    capture.bytes = 0;
    capture.is_started = pthread_create(&capture.thread, nullptr, run_capture_thread, nullptr) == 0;
}

// Ends the capture, if there is one: kills its processes and waits for its thread.
static void end_capture() {
    if (!capture.is_started) {
        return;
    }
    eventfd_write(capture.stop, 1);
    pthread_join(capture.thread, nullptr);
    capture.is_started = false;
    eventfd_t unused = 0;
    eventfd_read(capture.stop, &unused);
}

static void supervise(CaptureTrial &trial) {
    if (config_record().internal_camera_enabled == 0 || running != 0) {
        trial = {};
        return;
    }
    const bool is_alive = capture.is_started && capture.has_ended == 0;
    if (is_alive && !give_capture_up(trial, capture.bytes)) {
        return;
    }
    end_capture();
    start_capture();
}

[[noreturn]] static void *run_supervisor_thread(void * /*unused*/) {
    name_thread("camera-super");
    CaptureTrial trial{};
    for (;;) {
        supervise(trial);
        sleep_us(supervisor_us);
    }
}

int init_internal_camera(uint16_t /*port*/) {
    capture.stop = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    pthread_t thread{};
    return capture.stop >= 0 &&
                   pthread_create(&thread, nullptr, run_supervisor_thread, nullptr) == 0
               ? 0
               : -1;
}
