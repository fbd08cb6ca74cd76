#pragma once

// Takes frames out of the main ring in the daemon's place, which then leaves that ring alone.
// Stands on: media/frame_ring_layout, source/shared_object.

#include <cstdint>
#include <span>
#include <vector>

struct RingReader {
    int fd = -1;
    uint8_t *base = nullptr; // null: there is no ring
    std::vector<uint8_t> frame;
};

// Takes the next frame. False: there is none. `frame` is valid until the next call.
bool take_ring_frame(RingReader &reader, std::span<const uint8_t> &frame);
