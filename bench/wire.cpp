#include "wire.h"

#include "arrivals.h"
#include "media/frame_ring_layout.h"
#include "net/relay_packet.h"

#include <algorithm>
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
constexpr int64_t connect_ns = 30'000'000'000; // valgrind starts slowly
constexpr int64_t probe_interval_ns = 20'000'000;
constexpr int64_t quiet_ns = 50'000'000;
constexpr size_t probe_size = 64;
constexpr uint16_t probe_run = 0; // measurements count from 1

[[noreturn]] static void give_up(const char *what) {
    perror(what);
    exit(EXIT_FAILURE);
}

static int open_socket(const sockaddr_in &address, Buffers buffers) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        give_up("bind");
    }
    if (buffers == Buffers::large) {
        setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &receive_buffer_size,
                   sizeof receive_buffer_size);
    }
    return fd;
}

Wire open_wire(int clients, Buffers buffers) {
    Wire wire{};
    wire.source = open_socket(board_address(0), Buffers::large);
    wire.stream = -1;
    for (int i = 0; i < clients; ++i) {
        wire.destinations.push_back({open_socket(client_address(i), buffers), 0, false, 0});
    }
    wire.destinations.push_back(
        {open_socket(board_address(display_port), Buffers::large), 0, false, 0});
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

// Sends a packet with its header.
static void send_packet(Wire &wire, uint8_t type, const uint8_t *data, size_t size) {
    static RelayPacket packet;
    memcpy(packet.payload, data, size);
    set_payload_length(packet, static_cast<uint16_t>(size));
    stamp_header(packet, type, ++wire.sequence);
    if (type == relay_type_video) {
        send(wire.stream, &packet, relay_header_size + size, 0);
    } else {
        send_from(wire.source, data_port, reinterpret_cast<const uint8_t *>(&packet),
                  relay_header_size + size);
    }
}

void send_to_subject(Wire &wire, const uint8_t *data, size_t size) {
    if (wire.stream >= 0) {
        send_packet(wire, relay_type_data, data, size);
    } else {
        send_from(wire.source, data_port, data, size);
    }
}

void register_clients(const Wire &wire) {
    uint8_t packet[relay_header_size + 2] = {relay_magic};
    packet[relay_header_size] = 2; // register; the mode after it is 0: everything
    for (size_t i = 0; i + 1 < wire.destinations.size(); ++i) {
        send_from(wire.destinations[i].socket, control_port, packet, sizeof packet);
    }
}

// Does it take video alone, as messages? Then the display process gets nothing.
static bool takes_stream(const Subject &subject) {
    return subject.kind == SubjectKind::gstreamer && subject.load == LoadKind::video;
}

static void send_probe(Wire &wire, const Subject &subject) {
    uint8_t probe[probe_size];
    fill_block(probe, {block_marker, probe_run, 0, 0, probe_size, 0});
    if (takes_stream(subject)) {
        send_packet(wire, relay_type_video, probe, sizeof probe);
    } else {
        send_to_subject(wire, probe, sizeof probe);
    }
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

static bool all_heard(const Wire &wire, bool with_display) {
    const size_t count = wire.destinations.size() - (with_display ? 0 : 1);
    return std::all_of(wire.destinations.begin(),
                       wire.destinations.begin() + static_cast<std::ptrdiff_t>(count),
                       [](const Destination &destination) { return destination.heard; });
}

static void drain_probes(Wire &wire, int64_t &last_arrival_ns) {
    drain(wire, any_type, take_probe, &last_arrival_ns);
}

static void wait_until_quiet(Wire &wire, int64_t last_arrival_ns) {
    const int64_t end = monotonic_ns() + connect_ns;
    for (int64_t now = monotonic_ns(); now - last_arrival_ns < quiet_ns && now < end;
         now = monotonic_ns()) {
        drain_probes(wire, last_arrival_ns);
    }
}

static bool is_ready(Wire &wire, const Subject &subject) {
    return all_heard(wire, !takes_stream(subject)) &&
           (subject.kind == SubjectKind::gstreamer || ring_is_ready(wire, ring_name(subject.kind)));
}

bool connect_wire(Wire &wire, const Subject &subject) {
    const int64_t end = monotonic_ns() + connect_ns;
    int64_t next_probe_ns = 0;
    int64_t last_arrival_ns = 0;
    wire.stream = subject.stream;
    for (Destination &destination : wire.destinations) {
        destination.heard = false;
    }
    while (!is_ready(wire, subject)) {
        const int64_t now = monotonic_ns();
        if (now > end || has_ended(subject)) {
            return false;
        }
        if (now >= next_probe_ns) {
            if (subject.kind == SubjectKind::daemon) {
                register_clients(wire);
            }
            send_probe(wire, subject);
            next_probe_ns = now + probe_interval_ns;
        }
        drain_probes(wire, last_arrival_ns);
    }
    wait_until_quiet(wire, monotonic_ns());
    return true;
}

static uint8_t *slot_at(const Wire &wire) {
    return wire.ring + ring_header_size + wire.next_slot * slot_size(main_frame_capacity);
}

// The frame that is being made for a stream.
static uint8_t streamed_frame[main_frame_capacity];

uint8_t *next_frame(const Wire &wire) {
    if (wire.stream >= 0) {
        return streamed_frame;
    }
    uint8_t *slot = slot_at(wire);
    const std::atomic_ref<uint8_t> ready(slot[slot_ready_at]);
    return ready.load(std::memory_order_acquire) == 0 ? slot + slot_data_at : nullptr;
}

void publish_frame(Wire &wire, uint32_t length) {
    if (wire.stream >= 0) {
        for (uint32_t offset = 0; offset < length; offset += relay_video_block_size) {
            send_packet(wire, relay_type_video, streamed_frame + offset,
                        std::min<uint32_t>(length - offset, relay_video_block_size));
        }
        return;
    }
    uint8_t *slot = slot_at(wire);
    put_u32(slot + slot_length_at, length);
    put_u16(slot + slot_identifier_at, ++wire.last_identifier);
    slot[slot_identifier_byte_at] = 0;
    const std::atomic_ref<uint8_t> ready(slot[slot_ready_at]);
    ready.store(1, std::memory_order_release);
    wire.next_slot = (wire.next_slot + 1) % ring_slot_count;
}

int connect_stalled_viewer() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int small = 4096;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    const sockaddr_in daemon = board_address(control_port);
    if (connect(fd, reinterpret_cast<const sockaddr *>(&daemon), sizeof daemon) != 0) {
        give_up("connect");
    }
    return fd;
}
