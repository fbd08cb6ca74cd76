#pragma once

#include <cstddef>
#include <cstdint>

// The producer's side of a frame ring (media/frame_ring_layout.h). The daemon takes the slots in
// order and clears their ready flag; the producer fills them in the same order and never touches
// one that is ready, nor the one that was taken last, which the daemon may still be reading.
struct RingWriter {
    uint8_t *base = nullptr;
    uint32_t frame_capacity = 0;
    unsigned slot = 0;       // the next to fill
    uint32_t identifier = 0; // of the last frame; 24 bits
};

// Begins to write into the ring at `base`, behind what an earlier producer left waiting, and goes
// on with that one's identifiers: the daemon drops a frame with the identifier of the one before.
RingWriter begin_ring(uint8_t *base, uint32_t frame_capacity);

// Are the next slot and the one behind it free? As long as the latter waits, the daemon may still
// be reading the former.
bool ring_has_room(const RingWriter &ring);

// Hands one access unit over. The ring must have room and the unit be 1 to frame_capacity bytes
// long. Returns when that was, in nanoseconds of CLOCK_MONOTONIC.
int64_t publish_frame(RingWriter &ring, const uint8_t *data, uint32_t length);

// Has the daemon taken the last frame that was published?
bool ring_is_drained(const RingWriter &ring);

// The slot that the daemon takes next.
unsigned ring_read_index(const RingWriter &ring);
