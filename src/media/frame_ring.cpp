#include "media/frame_ring.h"

#include "base/bytes.h"
#include "base/shared_memory.h"
#include "base/shared_numbers.h"
#include "media/frame_ring_layout.h"

static void set_marks(uint8_t *base) {
    store_whole<uint8_t>(base + ring_mark0_at, 1);
    store_whole<uint8_t>(base + ring_mark1_at, 0);
}

// The heads of all slots, the first one with the ring's.
static SharedMemory memory_of(const FrameRing &ring) {
    const size_t slot = slot_size(ring.frame_capacity);
    return {ring.name,
            ring_size(ring.frame_capacity),
            {ring_header_size + slot_data_at, slot, ring_slot_count}};
}

void prepare_frame_ring(FrameRing &ring, MapTry which) {
    uint8_t *base = map_shared_memory(memory_of(ring), ring.base.load(), which);
    if (base != nullptr) {
        set_marks(base);
        ring.base.store(base, std::memory_order_release);
    }
}

void renew_ring_marks(FrameRing &ring) {
    uint8_t *base = ring.base.load(std::memory_order_acquire);
    const uint32_t restorations = shared_memory_restorations(base);
    if (restorations != ring.restorations_seen) {
        ring.restorations_seen = restorations;
        set_marks(base);
    }
}

TakenFrame take_frame(uint8_t *base, uint32_t frame_capacity, FrameIdentifier &last) {
    const uint16_t index = load_whole<uint16_t>(base + ring_read_index_at);
    if (index >= ring_slot_count) {
        store_whole<uint16_t>(base + ring_read_index_at, 0);
        return {TakeResult::bad_index, nullptr, 0, index};
    }
    uint8_t *slot = base + ring_header_size + index * slot_size(frame_capacity);
    // Acquire: what the producer wrote before it set the ready flag is visible after this load.
    const std::atomic_ref<uint8_t> ready(slot[slot_ready_at]);
    if (ready.load(std::memory_order_acquire) == 0) {
        return {TakeResult::none, nullptr, 0, index};
    }
    const uint32_t length = get_u32(slot + slot_length_at);
    if (length == 0) {
        return {TakeResult::none, nullptr, 0, index};
    }
    const FrameIdentifier identifier{get_u16(slot + slot_identifier_at),
                                     slot[slot_identifier_byte_at]};
    store_whole(base + ring_read_index_at, static_cast<uint16_t>((index + 1) % ring_slot_count));
    ready.store(0, std::memory_order_release);
    if (length > frame_capacity) {
        return {TakeResult::bad_length, nullptr, length, index};
    }
    if (identifier.number == last.number && identifier.byte == last.byte) {
        return {TakeResult::duplicate, nullptr, length, index};
    }
    last = identifier;
    return {TakeResult::frame, slot + slot_data_at, length, index};
}

bool more_frames_wait(uint8_t *base, uint32_t frame_capacity, unsigned count) {
    const unsigned index = load_whole<uint16_t>(base + ring_read_index_at) + count;
    uint8_t *slot = base + ring_header_size + (index % ring_slot_count) * slot_size(frame_capacity);
    return std::atomic_ref<uint8_t>(slot[slot_ready_at]).load(std::memory_order_relaxed) != 0;
}
