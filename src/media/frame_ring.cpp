#include "media/frame_ring.h"

#include "base/shared_memory.h"
#include "base/text.h"
#include "media/frame_ring_layout.h"

void prepare_frame_ring(FrameRing &ring) {
    uint8_t *base = map_shared_memory(ring.name, ring_size(ring.frame_capacity), ring.base.load());
    if (base == nullptr) {
        return;
    }
    base[ring_mark0_at] = 1;
    base[ring_mark1_at] = 0;
    ring.base.store(base, std::memory_order_release);
}

TakenFrame take_frame(uint8_t *base, uint32_t frame_capacity, FrameIdentifier &last) {
    const uint16_t index = load_whole<uint16_t>(base + ring_read_index_at);
    if (index >= ring_slot_count) {
        store_whole<uint16_t>(base + ring_read_index_at, 0);
        return {TakeResult::bad_index, nullptr, 0, index};
    }
    uint8_t *slot = base + ring_header_size + index * slot_size(frame_capacity);
    // The ready flag hands the slot over: what the producer wrote before it is seen behind it.
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
