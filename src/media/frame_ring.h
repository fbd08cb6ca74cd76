#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

// A frame ring in shared memory, and taking one frame out of it. frame_ring_layout.h has the
// layout.
struct FrameRing {
    const char *name;
    uint32_t frame_capacity;
    // The mapping; null until it is prepared. Once set it never changes, even when the shared
    // memory behind it is opened anew.
    std::atomic<uint8_t *> base;
};

// The identifier of the last frame seen in any ring: 32-bit values, so that the first ones match
// no frame.
struct FrameIdentifier {
    uint32_t number = 0xFFFFFFFF;
    uint32_t byte = 0xFFFFFFFF;
};

enum class TakeResult : uint8_t {
    none,       // nothing is ready
    frame,      // a frame was taken
    duplicate,  // a frame was taken that has been seen already
    bad_index,  // the read index was out of range and is 0 now
    bad_length, // a frame longer than its slot was given up
};

struct TakenFrame {
    TakeResult result;
    const uint8_t *data; // in the ring: valid until the next frame is taken
    uint32_t length;     // of the frame, also a bad one
    unsigned index;      // the read index as it was found, also a bad one
};

// Opens or creates the ring's shared memory, maps it and sets its two marks. An existing ring keeps
// its slots and read index. Called again, it opens the object anew at the same address. A failure
// is one line on standard error and leaves the ring as it was: at first unmapped, later with the
// mapping it has. Any thread; several at once do no harm, as each puts the same object at the same
// address. (Where start-up's call has failed, two at once may map it twice: one mapping is never
// used.)
void prepare_frame_ring(FrameRing &ring);

// Takes the next frame of a ring at `base`, if one is ready: advances the read index, clears the
// slot's ready flag and compares and remembers the identifier. One reader only.
TakenFrame take_frame(uint8_t *base, uint32_t frame_capacity, FrameIdentifier &last);
