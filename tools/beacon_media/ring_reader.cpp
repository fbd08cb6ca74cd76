#include "beacon_media/ring_reader.h"

#include "source/shared_object.h"

#include "base/bytes.h"
#include "base/shared_numbers.h"
#include "media/frame_ring_layout.h"

#include <atomic>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

constexpr size_t whole_size = ring_size(main_frame_capacity);

// A ring that was removed or truncated is given up: touching what is missing would end this
// process.
static bool ring_is_there(RingReader &reader) {
    struct stat information {};
    if (reader.base != nullptr &&
        (fstat(reader.fd, &information) != 0 || information.st_nlink == 0 ||
         information.st_size < static_cast<off_t>(whole_size))) {
        munmap(reader.base, whole_size);
        close(reader.fd);
        reader.base = nullptr;
    }
    if (reader.base == nullptr && map_shared_object(main_ring_name, whole_size, &reader.base,
                                                    &reader.fd) != SharedObjectResult::mapped) {
        reader.base = nullptr;
    }
    return reader.base != nullptr;
}

bool take_ring_frame(RingReader &reader, std::span<const uint8_t> &frame) {
    if (!ring_is_there(reader)) {
        return false;
    }
    const unsigned index = load_whole<uint16_t>(reader.base + ring_read_index_at) % ring_slot_count;
    uint8_t *slot = reader.base + ring_header_size + index * slot_size(main_frame_capacity);
    // Acquire: what the source wrote before it set the flag is visible after this load.
    const std::atomic_ref<uint8_t> ready(slot[slot_ready_at]);
    if (ready.load(std::memory_order_acquire) == 0) {
        return false;
    }
    const uint32_t length = get_u32(slot + slot_length_at);
    if (length == 0) {
        return false;
    }
    store_whole(reader.base + ring_read_index_at,
                static_cast<uint16_t>((index + 1) % ring_slot_count));
    ready.store(0, std::memory_order_release);
    // A source leaves the slot alone until the next frame is taken; its own memory outlives that.
    const uint32_t kept = length <= main_frame_capacity ? length : 0;
    reader.frame.assign(slot + slot_data_at, slot + slot_data_at + kept);
    frame = reader.frame;
    return kept > 0;
}
