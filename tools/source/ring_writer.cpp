#include "source/ring_writer.h"

#include "source/clocks.h"

#include "base/bytes.h"
#include "media/frame_ring_layout.h"

#include <atomic>
#include <cstring>
#include <fcntl.h>

constexpr uint32_t identifier_mask = 0xFFFFFF;

static uint8_t *slot_at(const RingWriter &ring, unsigned slot) {
    return ring.base + ring_header_size + slot * slot_size(ring.frame_capacity);
}

static bool is_ready(const RingWriter &ring, unsigned slot) {
    const std::atomic_ref<uint8_t> ready(slot_at(ring, slot)[slot_ready_at]);
    return ready.load(std::memory_order_acquire) != 0;
}

static unsigned slot_before(const RingWriter &ring) {
    return (ring.slot + ring_slot_count - 1) % ring_slot_count;
}

RingWriter begin_ring(uint8_t *base, uint32_t frame_capacity) {
    RingWriter ring{base, frame_capacity, 0, 0};
    ring.slot = get_u16(base + ring_read_index_at) % ring_slot_count;
    for (unsigned i = 0; i < ring_slot_count && is_ready(ring, ring.slot); ++i) {
        ring.slot = (ring.slot + 1) % ring_slot_count;
    }
    const uint8_t *last = slot_at(ring, slot_before(ring));
    ring.identifier = get_u16(last + slot_identifier_at) | uint32_t{last[slot_identifier_byte_at]}
                                                               << 16;
    return ring;
}

bool ring_has_room(const RingWriter &ring) {
    // In a full ring the only free slot is the one that the daemon may still be reading.
    return !is_ready(ring, ring.slot) && !is_ready(ring, (ring.slot + 1) % ring_slot_count);
}

bool reserve_frame(const RingWriter &ring, int fd, size_t size) {
    return fallocate(fd, FALLOC_FL_KEEP_SIZE,
                     static_cast<off_t>(slot_at(ring, ring.slot) - ring.base),
                     static_cast<off_t>(slot_data_at + size)) == 0;
}

bool ring_is_out_of_step(const RingWriter &ring) {
    const unsigned read_index = ring_read_index(ring);
    if (read_index == ring.slot || is_ready(ring, read_index)) {
        return false;
    }
    // Every slot from there up to the next one to fill should be ready, unless the daemon has just
    // taken it.
    return ring_read_index(ring) == read_index;
}

int64_t publish_frame(RingWriter &ring, const uint8_t *data, uint32_t length) {
    uint8_t *slot = slot_at(ring, ring.slot);
    ring.identifier = (ring.identifier + 1) & identifier_mask;
    memcpy(slot + slot_data_at, data, length);
    put_u32(slot + slot_length_at, length);
    put_u16(slot + slot_identifier_at, static_cast<uint16_t>(ring.identifier & 0xFFFF));
    slot[slot_identifier_byte_at] = static_cast<uint8_t>(ring.identifier >> 16);
    const int64_t published = monotonic_ns();
    // Last, because now the slot belongs to the daemon.
    std::atomic_ref<uint8_t>(slot[slot_ready_at]).store(1, std::memory_order_release);
    ring.slot = (ring.slot + 1) % ring_slot_count;
    return published;
}

bool ring_is_drained(const RingWriter &ring) {
    return !is_ready(ring, slot_before(ring));
}

unsigned ring_read_index(const RingWriter &ring) {
    return get_u16(ring.base + ring_read_index_at) % ring_slot_count;
}
