#include "media/video_source.h"

#include "base/clock.h"
#include "base/pause.h"
#include "config/config.h"
#include "config/restream_clients.h"
#include "media/frame_ring.h"
#include "media/frame_ring_layout.h"
#include "net/pace.h"
#include "net/relay.h"
#include "net/udp_endpoint.h"
#include "net/udp_outlet.h"

#include <algorithm>
#include <cstdio>
#include <pthread.h>

constexpr uint32_t presence_timeout_ms = 2000;
constexpr uint16_t receive_size = 60000;
constexpr uint32_t loss_check_us = 1000000;
constexpr uint32_t ring_poll_us = 2000;
constexpr uint32_t damage_report_ms = 1000;
constexpr uint32_t map_retry_ms = 1000;
constexpr unsigned frames_that_may_wait = 3;

static UdpEndpoint video_endpoint;
static uint8_t receive_buffer[receive_size];
static FrameRing main_ring{main_ring_name, main_frame_capacity, nullptr, 0};
static FrameRing transcoding_ring{transcoding_ring_name, transcoding_frame_capacity, nullptr, 0};
// Used by the frame reader: the outlet of restreamed video, and a pace for each entry of the list.
static UdpOutlet restream_outlet;
static VideoBucket restream_buckets[restream_capacity];

// Written by the endpoint's thread, the frame reader and the loss checker.
static Relaxed<uint8_t> present;          // 1: found, 0: lost
static Relaxed<uint32_t> last_frame_time; // now_ms() at the last frame; 0: none yet

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
        // Read this before the clock, so that the age is never negative.
        const uint32_t frame_time = last_frame_time;
        if (video_is_lost(frame_time, now_ms())) {
            on_lost();
        }
        recheck_restream_clients(config_record());
        sleep_us(loss_check_us);
    }
}

static FrameRing &ring_in_use() {
    return config_record().transcoding_enabled != 0 ? transcoding_ring : main_ring;
}

// Pacing helps receivers, but it must never make the reader fall behind.
static bool frames_pile_up() {
    const FrameRing &ring = ring_in_use();
    uint8_t *base = ring.base.load(std::memory_order_acquire);
    return base != nullptr && more_frames_wait(base, ring.frame_capacity, frames_that_may_wait);
}

// Where restreamed video goes, one receiver after the other.
struct Restream {
    VideoBucket &bucket;
    RoundReceivers receiver;
};

// An empty datagram is no part of a frame, and to some receivers it means the end.
static void restream_block(Restream &to, const uint8_t *block, uint16_t length) {
    if (length == 0) {
        return;
    }
    const int64_t now = pace_video(to.bucket, length, frames_pile_up);
    to.receiver.datagram = datagram_of(block, length);
    udp_outlet_round(restream_outlet, to.receiver, now);
}

// Sends a frame to one restream client in blocks of `block_size`, the last one shorter or equal.
// Block lengths are truncated to 16 bits.
static void restream_to(Restream &to, const uint8_t *data, uint32_t length, uint32_t block_size) {
    uint32_t offset = 0;
    for (; length - offset > block_size; offset += block_size) {
        restream_block(to, data + offset, static_cast<uint16_t>(block_size));
    }
    restream_block(to, data + offset, static_cast<uint16_t>(length - offset));
}

static void restream(const uint8_t *data, uint32_t length) {
    const ConfigRecord &config = config_record();
    const int32_t block_size = config.stream_udp_blocksize;
    // A block size of 0 or less would loop forever.
    if (config.stream_udp_enabled == 0 || block_size <= 0) {
        return;
    }
    const int count = std::min<int>(config.restream_clients.count, restream_capacity);
    for (int i = 0; i < count; ++i) {
        const Ipv4Port destination = config.restream_clients.destinations[i];
        if (destination != 0) {
            Restream to{restream_buckets[i], {}};
            prepare_receivers(to.receiver, &destination, 1);
            restream_to(to, data, length, static_cast<uint32_t>(block_size));
        }
    }
}

static void relay_frame(const TakenFrame &frame) {
    if (present == 0) {
        fputs("Video found\n", stderr);
        present = 1;
    }
    last_frame_time = now_ms();
    relay_video(frame.data, frame.length, relay_video_block_size, frames_pile_up);
    restream(frame.data, frame.length);
}

// Reports slots and indexes that a crashed producer left behind, and what was done about them: at
// most one line a second.
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

// The mapping of a ring, null when there is none. A ring that found no room in /dev/shm is tried
// again once a second.
static uint8_t *mapping_of(FrameRing &ring) {
    static uint32_t tried_at;
    if (ring.base.load(std::memory_order_relaxed) == nullptr &&
        now_ms() - tried_at > map_retry_ms) {
        tried_at = now_ms();
        prepare_frame_ring(ring, MapTry::again);
    }
    return ring.base.load(std::memory_order_acquire);
}

// Relays a frame if all of it has memory. It has, unless its producer left some of it out.
static void relay_whole_frame(const FrameRing &ring, const TakenFrame &frame) {
    if (shared_memory_has_room(frame.data, frame.length)) {
        relay_frame(frame);
    } else {
        report_damage(ring, "/dev/shm is too full for a frame of", frame.length,
                      "skipped; remove files there");
    }
}

// Takes and relays the next frame. Returns false when there is nothing to do for now.
static bool read_next_frame(FrameIdentifier &last) {
    FrameRing &ring = ring_in_use();
    uint8_t *base = mapping_of(ring);
    if (base == nullptr) {
        return false;
    }
    const TakenFrame frame = take_frame(base, ring.frame_capacity, last);
    renew_ring_marks(ring);
    switch (frame.result) {
    case TakeResult::frame:
        relay_whole_frame(ring, frame);
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
    udp_outlet_open(restream_outlet, video_endpoint);
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
