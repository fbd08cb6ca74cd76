#pragma once

// Writes frames into a frame ring, as a camera's program does.
// Stands on: media/frame_ring_layout, source/clocks.

#include <cstddef>
#include <cstdint>

// The daemon takes the slots in order and clears their ready flags. The producer fills them in the
// same order, and never touches a slot that is ready, or the one that was taken last, which the
// daemon may still be reading.
struct RingWriter {
    uint8_t *base = nullptr;
    uint32_t frame_capacity = 0;
    unsigned slot = 0;       // the next to fill
    uint32_t identifier = 0; // of the last frame; 24 bits
};

// Begins to write into the ring at `base`, after the frames that an earlier producer left there,
// and continues its identifiers: the daemon drops a frame with the identifier of the one before.
RingWriter begin_ring(uint8_t *base, uint32_t frame_capacity);

// Are the next slot and the one after it free? While the second is not, the daemon may still be
// reading the first.
bool ring_has_room(const RingWriter &ring);

// Reserves the memory for a frame of `size` bytes in the next slot: to write into a full /dev/shm
// would end this process. `fd` is the ring's. False: there is none.
bool reserve_frame(const RingWriter &ring, int fd, size_t size);

// Have the ring's contents been lost, so that the daemon waits at another slot than this writer
// fills next? It then has to begin again.
bool ring_is_out_of_step(const RingWriter &ring);

// Hands over one access unit of 1 to frame_capacity bytes. The ring must have room. Returns the
// time, in nanoseconds of CLOCK_MONOTONIC.
int64_t publish_frame(RingWriter &ring, const uint8_t *data, uint32_t length);

// Has the daemon taken the last frame that was published?
bool ring_is_drained(const RingWriter &ring);

// The slot that the daemon takes next.
unsigned ring_read_index(const RingWriter &ring);
