#include "wire.h"

#include "media/frame_ring_layout.h"
#include "net/relay_packet.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

constexpr int receive_buffer_size = 256 << 20;
constexpr int64_t connect_ns = 10'000'000'000;
constexpr int64_t probe_interval_ns = 20'000'000;
constexpr int64_t quiet_ns = 50'000'000;
constexpr size_t probe_size = 64;
constexpr uint16_t probe_run = 0; // measurements count from 1
constexpr unsigned batch = 16;
// Not a multiple of the page size, so that the packets of a batch do not fight for cache lines.
constexpr size_t packet_stride = relay_header_size + largest_block + 1024 + 52;

[[noreturn]] static void give_up(const char *what) {
    perror(what);
    exit(EXIT_FAILURE);
}

static int open_socket(const sockaddr_in &address) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        give_up("bind");
    }
    setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &receive_buffer_size, sizeof receive_buffer_size);
    return fd;
}

Wire open_wire(int clients) {
    Wire wire{{}, open_socket(board_address(0)), nullptr, 0, 0};
    for (int i = 0; i < clients; ++i) {
        wire.destinations.push_back({open_socket(client_address(i)), 0, false});
    }
    wire.destinations.push_back({open_socket(board_address(display_port)), 0, false});
    return wire;
}

void close_wire(Wire &wire) {
    for (const Destination &destination : wire.destinations) {
        close(destination.socket);
    }
    close(wire.source);
    if (wire.ring != nullptr) {
        munmap(wire.ring, ring_size(main_frame_capacity));
    }
    wire = {};
}

static void send_from(int socket, uint16_t port, const uint8_t *data, size_t size) {
    const sockaddr_in to = board_address(port);
    sendto(socket, data, size, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
}

void send_to_subject(const Wire &wire, const uint8_t *data, size_t size) {
    send_from(wire.source, data_port, data, size);
}

static void register_clients(const Wire &wire) {
    uint8_t packet[relay_header_size + 2] = {relay_magic};
    packet[relay_header_size] = 2; // register; the mode behind it is 0: everything
    for (size_t i = 0; i + 1 < wire.destinations.size(); ++i) {
        send_from(wire.destinations[i].socket, control_port, packet, sizeof packet);
    }
}

static void send_probe(const Wire &wire) {
    uint8_t probe[probe_size];
    fill_block(probe, {block_marker, probe_run, 0, 0, probe_size, 0});
    send_to_subject(wire, probe, sizeof probe);
}

static void map_ring(Wire &wire, const char *name) {
    const int fd = shm_open(name, O_RDWR | O_CLOEXEC, 0);
    struct stat status {};
    if (fd < 0) {
        return;
    }
    if (fstat(fd, &status) != 0 ||
        status.st_size != static_cast<off_t>(ring_size(main_frame_capacity))) {
        close(fd);
        return;
    }
    void *memory =
        mmap(nullptr, ring_size(main_frame_capacity), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (memory == MAP_FAILED) {
        give_up("mmap");
    }
    wire.ring = static_cast<uint8_t *>(memory);
}

static bool ring_is_ready(Wire &wire, const char *name) {
    if (wire.ring == nullptr) {
        map_ring(wire, name);
    }
    if (wire.ring == nullptr || wire.ring[ring_mark0_at] != 1) {
        return false;
    }
    wire.next_slot = get_u16(wire.ring + ring_read_index_at);
    return true;
}

// The context is the time of the last arrival.
static void take_probe(const Arrival &arrival, void *context) {
    *static_cast<int64_t *>(context) = arrival.arrived_ns;
    if (arrival.header.run == probe_run) {
        arrival.destination.heard = true;
    }
}

static bool all_heard(const Wire &wire) {
    for (const Destination &destination : wire.destinations) {
        if (!destination.heard) {
            return false;
        }
    }
    return true;
}

static void wait_until_quiet(Wire &wire, int64_t last_arrival_ns) {
    const int64_t end = monotonic_ns() + connect_ns;
    for (int64_t now = monotonic_ns(); now - last_arrival_ns < quiet_ns && now < end;
         now = monotonic_ns()) {
        drain(wire, relay_type_data, take_probe, &last_arrival_ns);
    }
}

bool connect_wire(Wire &wire, const Subject &subject) {
    const int64_t end = monotonic_ns() + connect_ns;
    int64_t next_probe_ns = 0;
    int64_t last_arrival_ns = 0;
    for (Destination &destination : wire.destinations) {
        destination.heard = false;
    }
    while (!all_heard(wire) || !ring_is_ready(wire, ring_name(subject.kind))) {
        const int64_t now = monotonic_ns();
        if (now > end || has_ended(subject)) {
            return false;
        }
        if (now >= next_probe_ns) {
            if (subject.kind == SubjectKind::daemon) {
                register_clients(wire);
            }
            send_probe(wire);
            next_probe_ns = now + probe_interval_ns;
        }
        drain(wire, relay_type_data, take_probe, &last_arrival_ns);
    }
    wait_until_quiet(wire, monotonic_ns());
    return true;
}

// The places that a batch of packets is received into.
struct Inbox {
    mmsghdr messages[batch];
    iovec contents[batch];
    sockaddr_in senders[batch];
    std::vector<uint8_t> bytes;
};

static Inbox &prepared_inbox() {
    static Inbox inbox;
    if (inbox.bytes.empty()) {
        inbox.bytes.resize(batch * packet_stride);
    }
    for (unsigned i = 0; i < batch; ++i) {
        inbox.contents[i] = {inbox.bytes.data() + i * packet_stride, packet_stride};
        inbox.messages[i] = {};
        inbox.messages[i].msg_hdr.msg_name = &inbox.senders[i];
        inbox.messages[i].msg_hdr.msg_namelen = sizeof inbox.senders[i];
        inbox.messages[i].msg_hdr.msg_iov = &inbox.contents[i];
        inbox.messages[i].msg_hdr.msg_iovlen = 1;
    }
    return inbox;
}

// Every packet to a destination has a higher sequence number than the one before.
static bool is_well_formed(Destination &destination, const uint8_t *packet, size_t size,
                           const sockaddr_in &sender) {
    const sockaddr_in expected = board_address(control_port);
    const uint32_t sequence = get_u32(packet + relay_sequence_at);
    const uint32_t before = destination.last_sequence;
    destination.last_sequence = sequence;
    return sender.sin_addr.s_addr == expected.sin_addr.s_addr &&
           sender.sin_port == expected.sin_port && packet[relay_magic_at] == relay_magic &&
           get_u16(packet + relay_length_at) == size - relay_header_size &&
           get_u32(packet + relay_constant_at) == relay_constant &&
           (before == 0 || sequence - before - 1 < UINT32_MAX / 2);
}

static unsigned drain_batch(Destination &destination, Inbox &inbox, uint8_t type,
                            void (*take)(const Arrival &, void *), void *context) {
    const int count = recvmmsg(destination.socket, inbox.messages, batch, MSG_DONTWAIT, nullptr);
    if (count <= 0) {
        return 0;
    }
    const int64_t now = monotonic_ns();
    for (unsigned i = 0; i < static_cast<unsigned>(count); ++i) {
        const uint8_t *packet = inbox.bytes.data() + i * packet_stride;
        const size_t size = inbox.messages[i].msg_len;
        if (size < relay_header_size + block_header_size) {
            continue;
        }
        const bool well_formed = is_well_formed(destination, packet, size, inbox.senders[i]);
        Arrival arrival{destination, packet + relay_header_size, size - relay_header_size, {}, now,
                        well_formed};
        if (packet[relay_type_at] == type &&
            read_block_header(arrival.block, arrival.size, arrival.header)) {
            take(arrival, context);
        }
        inbox.messages[i].msg_hdr.msg_namelen = sizeof inbox.senders[i];
    }
    return static_cast<unsigned>(count);
}

void drain(Wire &wire, uint8_t type, void (*take)(const Arrival &, void *), void *context) {
    static Inbox &inbox = prepared_inbox();
    for (Destination &destination : wire.destinations) {
        while (drain_batch(destination, inbox, type, take, context) == batch) {
        }
    }
}

static uint8_t *slot_at(const Wire &wire) {
    return wire.ring + ring_header_size + wire.next_slot * slot_size(main_frame_capacity);
}

uint8_t *next_frame(const Wire &wire) {
    uint8_t *slot = slot_at(wire);
    const std::atomic_ref<uint8_t> ready(slot[slot_ready_at]);
    return ready.load(std::memory_order_acquire) == 0 ? slot + slot_data_at : nullptr;
}

void publish_frame(Wire &wire, uint32_t length) {
    uint8_t *slot = slot_at(wire);
    put_u32(slot + slot_length_at, length);
    put_u16(slot + slot_identifier_at, ++wire.last_identifier);
    slot[slot_identifier_byte_at] = 0;
    const std::atomic_ref<uint8_t> ready(slot[slot_ready_at]);
    ready.store(1, std::memory_order_release);
    wire.next_slot = (wire.next_slot + 1) % ring_slot_count;
}
