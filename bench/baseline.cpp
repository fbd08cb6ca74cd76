#include "baseline.h"

#include "media/frame_ring_layout.h"
#include "net/relay_packet.h"
#include "ports.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

constexpr int kernel_buffer_size = 10000000;
constexpr useconds_t pause_us = 2;
constexpr useconds_t ring_poll_us = 2000;
constexpr int most_destinations = most_clients + 1;

static Pacing pacing;
static int clients;                                 // number of clients
static sockaddr_in destinations[most_destinations]; // the clients, then the display process
static int data_socket;
static int send_socket;
static std::atomic<uint32_t> next_sequence;

[[noreturn]] static void give_up(const char *what) {
    perror(what);
    _exit(EXIT_FAILURE);
}

static int open_socket(uint16_t port) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kernel_buffer_size, sizeof kernel_buffer_size);
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kernel_buffer_size, sizeof kernel_buffer_size);
    const sockaddr_in address = board_address(port);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        give_up("bind");
    }
    return fd;
}

static void send_plain(RelayPacket &packet, size_t length, int count) {
    for (int i = 0; i < count; ++i) {
        sendto(send_socket, &packet, length, 0,
               reinterpret_cast<const sockaddr *>(&destinations[i]), sizeof destinations[i]);
        usleep(pause_us);
    }
}

static void send_at_once(RelayPacket &packet, size_t length, int count) {
    iovec content{&packet, length};
    mmsghdr messages[most_destinations] = {};
    for (int i = 0; i < count; ++i) {
        messages[i].msg_hdr.msg_name = &destinations[i];
        messages[i].msg_hdr.msg_namelen = sizeof destinations[i];
        messages[i].msg_hdr.msg_iov = &content;
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    sendmmsg(send_socket, messages, static_cast<unsigned>(count), 0);
}

static void relay(RelayPacket &packet, uint8_t type, size_t payload, int count) {
    set_payload_length(packet, static_cast<uint16_t>(payload));
    stamp_header(packet, type, next_sequence.fetch_add(1));
    const size_t length = relay_header_size + payload;
    if (pacing == Pacing::plain) {
        send_plain(packet, length, count);
    } else {
        send_at_once(packet, length, count);
    }
}

static void relay_frame(RelayPacket &packet, const uint8_t *data, size_t length) {
    for (size_t offset = 0; offset < length; offset += relay_video_block_size) {
        const size_t rest = length - offset;
        const size_t size = rest < relay_video_block_size ? rest : relay_video_block_size;
        memcpy(packet.payload, data + offset, size);
        relay(packet, relay_type_video, size, clients);
    }
}

static bool relay_next_frame(RelayPacket &packet, uint8_t *base) {
    const uint16_t index = get_u16(base + ring_read_index_at);
    uint8_t *slot = base + ring_header_size + index * slot_size(main_frame_capacity);
    const std::atomic_ref<uint8_t> ready(slot[slot_ready_at]);
    if (ready.load(std::memory_order_acquire) == 0) {
        return false;
    }
    put_u16(base + ring_read_index_at, static_cast<uint16_t>((index + 1) % ring_slot_count));
    ready.store(0, std::memory_order_release);
    relay_frame(packet, slot + slot_data_at, get_u32(slot + slot_length_at));
    return true;
}

static uint8_t *make_ring() {
    const int fd = shm_open(baseline_ring_name, O_RDWR | O_CREAT, 0600);
    if (fd < 0 || ftruncate(fd, static_cast<off_t>(ring_size(main_frame_capacity))) != 0) {
        give_up(baseline_ring_name);
    }
    void *memory =
        mmap(nullptr, ring_size(main_frame_capacity), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (memory == MAP_FAILED) {
        give_up("mmap");
    }
    auto *base = static_cast<uint8_t *>(memory);
    memset(base, 0, ring_size(main_frame_capacity));
    base[ring_mark0_at] = 1;
    return base;
}

[[noreturn]] static void *run_frame_reader(void *ring) {
    static RelayPacket packet;
    auto *base = static_cast<uint8_t *>(ring);
    for (;;) {
        if (!relay_next_frame(packet, base)) {
            usleep(ring_poll_us);
        }
    }
}

void run_baseline(Pacing wanted_pacing, int client_count) {
    pacing = wanted_pacing;
    clients = client_count;
    for (int i = 0; i < clients; ++i) {
        destinations[i] = client_address(i);
    }
    destinations[clients] = board_address(display_port);
    send_socket = open_socket(control_port);
    data_socket = open_socket(data_port);
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, run_frame_reader, make_ring()) != 0) {
        give_up("pthread_create");
    }
    static RelayPacket packet;
    for (;;) {
        const ssize_t length =
            recvfrom(data_socket, packet.payload, sizeof packet.payload, 0, nullptr, nullptr);
        if (length < 0) {
            give_up("recvfrom");
        }
        relay(packet, relay_type_data, static_cast<size_t>(length), clients + 1);
    }
}
