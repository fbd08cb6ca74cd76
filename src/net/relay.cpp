#include "net/relay.h"

#include "base/pause.h"
#include "config/config.h"
#include "net/tcp_stream.h"
#include "net/udp_outlet.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <pthread.h>
#include <sched.h>

// How long the sender of video lets other senders go first.
constexpr int64_t most_aside_ns = 100000;

// The display process on this board.
constexpr uint16_t display_port = 5253;
constexpr Ipv4Port display_address = loopback_address(display_port);

// One packet at a time goes out to all clients.
static pthread_mutex_t relay_mutex;
// The number of threads that wait for the mutex.
static Relaxed<int> waiting;
// All packets leave through it. Rounds are sent under the mutex.
static UdpOutlet outlet;
// The next packet's sequence number, for all threads that send.
static Relaxed<uint32_t> next_sequence;
static ClientRegistry clients;
// Used only by the thread that relays video.
static VideoBucket video_bucket;

static_assert(client_capacity + 1 <= outlet_round_limit); // and the display process

int relay_init() {
    if (pthread_mutex_init(&relay_mutex, nullptr) != 0) {
        fputs("Mutex init failed", stderr);
        return -1;
    }
    next_sequence = 0;
    return 0;
}

void relay_open(UdpEndpoint &endpoint) {
    udp_outlet_open(outlet, endpoint);
}

ClientRegistry &relay_clients() {
    return clients;
}

// Who gets a kind of packets, prepared for sending; of the mutex.
struct Receivers {
    uint32_t version; // of the registry they were taken from
    RoundReceivers prepared;
};
static Receivers media_receivers;
static Receivers data_receivers;

// Clients in the order of their slots, then the display process.
static void take_receivers(Receivers &receivers, uint32_t version, bool is_media) {
    Ipv4Port destinations[client_capacity + 1];
    int count = 0;
    for (const ClientSlot &slot : clients.slots) {
        destinations[count] = slot_destination(slot, is_media);
        count += port_of(destinations[count]) != 0 ? 1 : 0;
    }
    if (!is_media) {
        destinations[count++] = display_address;
    }
    prepare_receivers(receivers.prepared, destinations, count);
    receivers.version = version;
}

static RoundReceivers &receivers_of(uint8_t type) {
    const bool is_media = type != relay_type_data;
    Receivers &receivers = is_media ? media_receivers : data_receivers;
    const uint32_t version = clients.version.load(std::memory_order_acquire);
    if (receivers.version != version) {
        take_receivers(receivers, version, is_media);
    }
    return receivers.prepared;
}

// Locks, and returns the time then; `now` is the time as it was a moment ago.
static int64_t lock_relay(int64_t now) {
    if (pthread_mutex_trylock(&relay_mutex) == 0) {
        return now;
    }
    waiting.add(1);
    pthread_mutex_lock(&relay_mutex);
    waiting.add(-1);
    return monotonic_ns();
}

// Completes a header, whose length is set, and sends it with its payload.
static void send_to_clients(uint8_t type, uint8_t *header, const uint8_t *payload, uint16_t length,
                            int64_t now) {
    now = udp_outlet_wait(outlet, now); // not under the lock, where others would wait with it
    now = lock_relay(now);
    stamp_header(header, type, next_sequence.add(1));
    RoundReceivers &receivers = receivers_of(type);
    receivers.datagram = datagram_of(header, relay_header_size, payload, length);
    udp_outlet_round(outlet, receivers, now);
    pthread_mutex_unlock(&relay_mutex);
}

void relay_to_clients(uint8_t type, RelayPacket &packet) {
    if (udp_outlet_is_open(outlet)) {
        send_to_clients(type, packet.header, packet.payload, payload_length(packet),
                        monotonic_ns());
    }
}

// The mutex is not fair: a thread that releases it and takes it again at once starves those that
// wait. Between two blocks of a frame they get their turn.
static void let_others_pass() {
    if (waiting == 0) {
        return;
    }
    const int64_t end = monotonic_ns() + most_aside_ns;
    while (waiting != 0 && monotonic_ns() < end) {
        sched_yield();
    }
}

// The block is sent from where it lies.
static void relay_video_block(const uint8_t *block, uint16_t length, MustHurry must_hurry) {
    uint8_t header[relay_header_size];
    put_u16(header + relay_length_at, length);
    const int64_t now = pace_video(video_bucket, length, must_hurry);
    let_others_pass();
    send_to_clients(relay_type_video, header, block, length, now);
}

void relay_video(const uint8_t *data, size_t length, uint16_t block_size, MustHurry must_hurry) {
    if (tcp_client_connected()) {
        tcp_send_frame(data, length);
    }
    if (!udp_outlet_is_open(outlet)) {
        return;
    }
    size_t offset = 0;
    for (; offset + block_size < length; offset += block_size) {
        relay_video_block(data + offset, block_size, must_hurry);
    }
    relay_video_block(data + offset, static_cast<uint16_t>(length - offset), must_hurry);
}

void relay_to_client(uint8_t type, RelayPacket &packet, const char *host, uint16_t port) {
    const Ipv4Port destination = ipv4_port(host, port);
    if (!udp_outlet_is_open(outlet) || destination == 0) {
        return;
    }
    stamp_header(packet, type, next_sequence.add(1));
    udp_outlet_single(outlet, datagram_of(&packet, relay_header_size + payload_length(packet)),
                      destination);
}

void relay_text_reply(const char *text, size_t length, const char *host, uint16_t port) {
    RelayPacket packet; // NOLINT(cppcoreguidelines-pro-type-member-init): only its start is used
    const size_t used = std::min(length, relay_payload_capacity);
    memcpy(packet.payload, text, used);
    set_payload_length(packet, static_cast<uint16_t>(used));
    relay_to_client(relay_type_data, packet, host, port);
}

// Offsets in the image reply's payload.
constexpr size_t image_kind_at = 0; // 10: image
constexpr size_t image_size_at = 1; // u16
constexpr size_t image_data_at = 3;
constexpr uint8_t image_kind = 10;
static_assert(image_data_at + relay_image_limit == relay_payload_capacity);

void relay_image_reply(const void *image, size_t size, const char *host, uint16_t port) {
    RelayPacket packet; // NOLINT(cppcoreguidelines-pro-type-member-init): only its start is used
    const size_t used = std::min(size, relay_image_limit);
    packet.payload[image_kind_at] = image_kind;
    put_u16(packet.payload + image_size_at, static_cast<uint16_t>(used));
    memcpy(packet.payload + image_data_at, image, used);
    set_payload_length(packet, static_cast<uint16_t>(image_data_at + used));
    relay_to_client(relay_type_data, packet, host, port);
}

// Offsets in the info reply's payload.
constexpr size_t info_kind_at = 0; // 1: info
constexpr size_t info_app_type_at = 1;
constexpr size_t info_reserved_at = 2; // 0
constexpr size_t info_client_count_at = 3;
constexpr size_t info_name_at = 4; // blank-padded, no terminating zero
constexpr size_t info_name_size = 40;
constexpr size_t info_size = info_name_at + info_name_size;
static_assert(info_size == 44);
static_assert(sizeof(ConfigRecord::device_name) <= info_name_size);

void send_info_reply(const char *host, uint16_t port) {
    const ConfigRecord &config = config_record();
    RelayPacket packet; // NOLINT(cppcoreguidelines-pro-type-member-init): only its start is used
    uint8_t *info = packet.payload;
    info[info_kind_at] = 1;
    info[info_app_type_at] = config.app_type;
    info[info_reserved_at] = 0;
    info[info_client_count_at] = clients.count;
    memset(info + info_name_at, ' ', info_name_size);
    memcpy(info + info_name_at, config.device_name,
           strnlen(config.device_name, sizeof config.device_name));
    set_payload_length(packet, info_size);
    relay_to_client(relay_type_data, packet, host, port);
}
