#include "media/video_source.h"

#include "base/clock.h"
#include "base/pause.h"
#include "config/config.h"
#include "media/frame_ring.h"
#include "media/frame_ring_layout.h"
#include "net/relay.h"
#include "net/udp_endpoint.h"

#include <algorithm>
#include <cstdio>
#include <pthread.h>

constexpr uint32_t presence_timeout_ms = 2000;
constexpr uint16_t receive_size = 60000;
constexpr uint32_t loss_check_us = 1000000;
constexpr uint32_t ring_poll_us = 2000;
constexpr uint32_t damage_report_ms = 1000;

static UdpEndpoint video_endpoint;
static uint8_t receive_buffer[receive_size];
static FrameRing main_ring{main_ring_name, main_frame_capacity, nullptr};
static FrameRing transcoding_ring{transcoding_ring_name, transcoding_frame_capacity, nullptr};

// Written by the endpoint's thread, the frame reader and the loss checker.
static Relaxed<uint8_t> present;          // 1: found, 0: lost
static Relaxed<uint32_t> last_frame_time; // now_ms of the last frame; 0: none yet

static void *run_receive_thread(void * /*unused*/) {
    name_thread("video-rx");
    udp_endpoint_run(video_endpoint);
}

static void on_lost() {
    fputs("Video lost\n", stderr);
    present = 0;
    last_frame_time = 0;
}

static void on_found(const char * /*host*/) {
    fputs("Video found\n", stderr);
    present = 1;
    last_frame_time = 0;
}

[[noreturn]] static void *run_loss_thread(void * /*unused*/) {
    name_thread("video-loss");
    for (;;) {
        // Read before the clock: a frame taken in between only makes the age smaller.
        const uint32_t frame_time = last_frame_time;
        if (video_is_lost(frame_time, now_ms())) {
            on_lost();
        }
        sleep_us(loss_check_us);
    }
}

// Sends a frame to one restream client: blocks of `block_size` while more than one remains, then
// the rest. Lengths go out as 16-bit values.
static void restream_to(const sockaddr_in &address, const uint8_t *data, uint32_t length,
                        uint32_t block_size) {
    uint32_t offset = 0;
    for (; length - offset > block_size; offset += block_size) {
        udp_endpoint_send(video_endpoint, data + offset, static_cast<uint16_t>(block_size),
                          address);
    }
    udp_endpoint_send(video_endpoint, data + offset, static_cast<uint16_t>(length - offset),
                      address);
}

static void restream(const uint8_t *data, uint32_t length) {
    const ConfigRecord &config = config_record();
    const int32_t block_size = config.stream_udp_blocksize;
    // A block size that cuts nothing off would never end.
    if (config.stream_udp_enabled == 0 || block_size <= 0) {
        return;
    }
    const int count = std::min<int>(config.restream_clients.count, restream_capacity);
    for (int i = 0; i < count; ++i) {
        const Ipv4Port destination = config.restream_clients.destinations[i];
        if (destination != 0) {
            restream_to(socket_address(destination), data, length,
                        static_cast<uint32_t>(block_size));
        }
    }
}

static void relay_frame(const TakenFrame &frame) {
    if (present == 0) {
        fputs("Video found\n", stderr);
        present = 1;
    }
    last_frame_time = now_ms();
    relay_video(frame.data, frame.length, relay_video_block_size);
    restream(frame.data, frame.length);
}

// One line at most a second about slots and indexes that a crashed producer left behind, and what
// was done about it.
static void report_damage(const FrameRing &ring, const char *what, uint32_t number,
                          const char *remedy) {
    static uint32_t last_report;
    static unsigned unreported;
    if (last_report != 0 && now_ms() - last_report < damage_report_ms) {
        ++unreported;
        return;
    }
    fprintf(stderr, "Frame ring %s: %s %u, %s (%u more since the last such line)\n", ring.name,
            what, number, remedy, unreported);
    last_report = now_ms();
    unreported = 0;
}

// Takes and relays the next frame. False: there is nothing to do for a while.
static bool read_next_frame(FrameIdentifier &last) {
    const FrameRing &ring = config_record().transcoding_enabled != 0 ? transcoding_ring : main_ring;
    uint8_t *base = ring.base.load(std::memory_order_acquire);
    if (base == nullptr) {
        return false;
    }
    const TakenFrame frame = take_frame(base, ring.frame_capacity, last);
    switch (frame.result) {
    case TakeResult::frame:
        relay_frame(frame);
        return true;
    case TakeResult::bad_index:
        report_damage(ring, "read index out of range", frame.index, "set to 0");
        return true;
    case TakeResult::bad_length:
        report_damage(ring, "frame longer than its slot", frame.length, "skipped");
        return true;
    case TakeResult::none:
    case TakeResult::duplicate:
        break;
    }
    return false;
}

[[noreturn]] static void *run_frame_reader(void * /*unused*/) {
    name_thread("frame-reader");
    FrameIdentifier last;
    for (;;) {
        if (!read_next_frame(last)) {
            sleep_us(ring_poll_us);
        }
    }
}

void reinit_frame_rings() {
    fprintf(stderr, "Init frame buffer %d bytes\n",
            static_cast<int>(ring_size(main_ring.frame_capacity)));
    prepare_frame_ring(main_ring);
    fprintf(stderr, "Init frame buffer for transcoding %d bytes\n",
            static_cast<int>(ring_size(transcoding_ring.frame_capacity)));
    prepare_frame_ring(transcoding_ring);
}

int init_video_source(uint16_t port) {
    fputs("Init video source\n", stderr);
    if (udp_endpoint_open(video_endpoint, port, run_receive_thread) != 0) {
        return -1;
    }
    video_endpoint.timeout_ms = presence_timeout_ms;
    video_endpoint.on_lost = on_lost;
    video_endpoint.on_found = on_found;
    video_endpoint.buffer_size = receive_size;
    video_endpoint.buffer.store(receive_buffer, std::memory_order_release);
    reinit_frame_rings();
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, run_loss_thread, nullptr) != 0) {
        return -1;
    }
    return pthread_create(&thread, nullptr, run_frame_reader, nullptr) == 0 ? 0 : -1;
}

bool video_present() {
    return present != 0;
}
