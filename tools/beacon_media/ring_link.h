#pragma once

// Keeps hold of one of the daemon's frame rings while the daemon comes and goes.
// Stands on: media/frame_ring_layout, source/ring_writer, source/shared_object.

#include "source/ring_writer.h"

#include "media/frame_ring_layout.h"

#include <cstddef>
#include <cstdint>

struct RingLink {
    const char *name = main_ring_name;
    uint32_t capacity = main_frame_capacity;
    int fd = -1;
    uint8_t *base = nullptr; // null: there is no ring
    RingWriter writer;
};

// What a ring has for the next picture.
enum class RingRoom : uint8_t {
    free,
    full,      // the daemon takes no frames, or not fast enough
    no_memory, // /dev/shm is full
    absent,    // the daemon has not made the ring, or it was removed or truncated
};

// Looks for room for a picture of `size` bytes, opening the ring if need be. A ring that was
// removed is given up, and one whose contents were lost is begun again where the daemon reads.
// Never waits.
RingRoom ring_room(RingLink &link, size_t size);

// Is the daemon's ring there? Opens it if need be.
bool ring_is_there(RingLink &link);
