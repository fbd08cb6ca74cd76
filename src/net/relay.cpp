#include "net/relay.h"

#include "base/pause.h"
#include "config/config.h"
#include "net/tcp_server.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <pthread.h>

// The display process on this board.
constexpr uint16_t display_port = 5253;
constexpr Ipv4Port display_address = loopback_address(display_port);

// One packet at a time goes out to all clients.
static pthread_mutex_t relay_mutex;
// Set once, when the control server has its socket; null before.
static std::atomic<UdpEndpoint *> relay_endpoint;
// The next packet's number; taken by every thread that sends.
static Relaxed<uint32_t> next_sequence;
static ClientRegistry clients;

int relay_init() {
    if (pthread_mutex_init(&relay_mutex, nullptr) != 0) {
        fputs("Mutex init failed", stderr);
        return -1;
    }
    next_sequence = 0;
    return 0;
}

void relay_open(UdpEndpoint &endpoint) {
    relay_endpoint.store(&endpoint, std::memory_order_release);
}

ClientRegistry &relay_clients() {
    return clients;
}

static void send_paced(UdpEndpoint &endpoint, const RelayPacket &packet, size_t length,
                       Ipv4Port destination) {
    udp_endpoint_send(endpoint, &packet, length, socket_address(destination));
    pause_after_datagram();
}

void relay_to_clients(uint8_t type, RelayPacket &packet) {
    UdpEndpoint *endpoint = relay_endpoint.load(std::memory_order_acquire);
    if (endpoint == nullptr) {
        return;
    }
    const size_t length = relay_header_size + payload_length(packet);
    const bool is_media = type != relay_type_data;
    pthread_mutex_lock(&relay_mutex);
    stamp_header(packet, type, next_sequence.add(1));
    for (const ClientSlot &slot : clients.slots) {
        const Ipv4Port destination = slot_destination(slot, is_media);
        if (port_of(destination) != 0) {
            send_paced(*endpoint, packet, length, destination);
        }
    }
    if (!is_media) {
        send_paced(*endpoint, packet, length, display_address);
    }
    pthread_mutex_unlock(&relay_mutex);
}

static void relay_video_block(RelayPacket &packet, const uint8_t *block, uint16_t length) {
    if (tcp_client_connected()) {
        tcp_send_block(block, length);
    }
    memcpy(packet.payload, block, length);
    set_payload_length(packet, length);
    relay_to_clients(relay_type_video, packet);
}

void relay_video(const uint8_t *data, size_t length, uint16_t block_size) {
    // Not initialised on purpose: of its 60012 bytes only the first block's worth is ever touched.
    RelayPacket packet; // NOLINT(cppcoreguidelines-pro-type-member-init)
    size_t offset = 0;
    for (; offset + block_size < length; offset += block_size) {
        relay_video_block(packet, data + offset, block_size);
    }
    relay_video_block(packet, data + offset, static_cast<uint16_t>(length - offset));
}

void relay_to_client(uint8_t type, RelayPacket &packet, const char *host, uint16_t port) {
    UdpEndpoint *endpoint = relay_endpoint.load(std::memory_order_acquire);
    const Ipv4Port destination = ipv4_port(host, port);
    if (endpoint == nullptr || destination == 0) {
        return;
    }
    stamp_header(packet, type, next_sequence.add(1));
    send_paced(*endpoint, packet, relay_header_size + payload_length(packet), destination);
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
