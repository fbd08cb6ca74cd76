#pragma once

// Takes frames out of a ring in shared memory.
// Stands on: media/frame_ring_layout.

#include "base/shared_memory.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

// A frame ring in shared memory; frame_ring_layout.h has its layout.
struct FrameRing {
    const char *name;
    uint32_t frame_capacity;
    // The mapping; null until the ring is prepared. Once set it never changes, even when the shared
    // memory is reopened.
    std::atomic<uint8_t *> base;
    uint32_t restorations_seen; // by renew_ring_marks
};

// The identifier of the last frame seen in any ring. The initial 32-bit values match no frame.
struct FrameIdentifier {
    uint32_t number = 0xFFFFFFFF;
    uint32_t byte = 0xFFFFFFFF;
};

enum class TakeResult : uint8_t {
    none,       // nothing is ready
    frame,      // a frame was taken
    duplicate,  // a frame was taken that has already been seen
    bad_index,  // the read index was out of range and is now 0
    bad_length, // a frame longer than its slot was skipped
};

struct TakenFrame {
    TakeResult result;
    const uint8_t *data; // in the ring: valid until the next frame is taken
    uint32_t length;     // of the frame, even a bad one
    unsigned index;      // the read index before the call, even a bad one
};

// Opens or creates the ring's shared memory, maps it and sets its two marks. An existing ring keeps
// its slots and read index. A further call reopens the object at the same address. A failure prints
// one line on standard error and leaves the ring unchanged: unmapped at first, later with its
// present mapping. Any thread, several at once: each maps the same object at the same address. (If
// start-up's call has failed, two concurrent calls may create two mappings; one is never used.)
// `which` as for map_shared_memory, which gives the heads of all slots their memory.
void prepare_frame_ring(FrameRing &ring, MapTry which = MapTry::first);

// Sets the two marks of a prepared ring again if its shared memory has been restored, filled with
// zeros, after another program truncated it. Only the thread that takes frames.
void renew_ring_marks(FrameRing &ring);

// Takes the next frame of the ring at `base`, if one is ready: advances the read index, clears the
// slot's ready flag, and compares and stores the identifier. One reader only.
TakenFrame take_frame(uint8_t *base, uint32_t frame_capacity, FrameIdentifier &last);

// Are more than `count` frames waiting to be taken? Any thread.
bool more_frames_wait(uint8_t *base, uint32_t frame_capacity, unsigned count);
