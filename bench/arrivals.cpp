#include "arrivals.h"

#include "net/relay_packet.h"
#include "ports.h"

#include <sys/socket.h>
#include <vector>

constexpr unsigned batch = 16;
// Not a multiple of the page size, so that the packets of a batch do not compete for cache lines.
constexpr size_t packet_stride = relay_header_size + largest_block + 1024 + 52;

// The buffers for receiving a batch of packets.
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

// Checks the sender, the header and that the sequence number is higher than that of the packet
// before.
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

static bool is_status_record(const uint8_t *packet, size_t size) {
    return size == relay_header_size + 41 && packet[relay_type_at] == relay_type_data &&
           packet[relay_header_size] == 4;
}

static unsigned drain_batch(Destination &destination, Inbox &inbox, int type,
                            void (*take)(const Arrival &, void *), void *context) {
    const int count = recvmmsg(destination.socket, inbox.messages, batch, MSG_DONTWAIT, nullptr);
    if (count <= 0) {
        return 0;
    }
    const int64_t now = monotonic_ns();
    for (unsigned i = 0; i < static_cast<unsigned>(count); ++i) {
        const uint8_t *packet = inbox.bytes.data() + i * packet_stride;
        const size_t size = inbox.messages[i].msg_len;
        destination.status_records += is_status_record(packet, size) ? 1 : 0;
        if (size < relay_header_size + block_header_size) {
            continue;
        }
        const bool well_formed = is_well_formed(destination, packet, size, inbox.senders[i]);
        Arrival arrival{destination, packet + relay_header_size, size - relay_header_size, {}, now,
                        well_formed};
        if ((type == any_type || packet[relay_type_at] == type) &&
            read_block_header(arrival.block, arrival.size, arrival.header)) {
            take(arrival, context);
        }
        inbox.messages[i].msg_hdr.msg_namelen = sizeof inbox.senders[i];
    }
    return static_cast<unsigned>(count);
}

void drain(Wire &wire, int type, void (*take)(const Arrival &, void *), void *context) {
    static Inbox &inbox = prepared_inbox();
    for (Destination &destination : wire.destinations) {
        while (drain_batch(destination, inbox, type, take, context) == batch) {
        }
    }
}
