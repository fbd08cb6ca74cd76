#pragma once

// A bounded queue of frames, each stored in one contiguous piece.
// Stands on: nothing else of ours.

#include <cstddef>
#include <cstdint>

// The queue has no lock of its own: its owner locks it. A queue of all zeros is empty.

// Enough for more than six of the largest frames, and for a quarter of a second at 60 Mbit/s.
constexpr uint32_t frame_queue_bytes = 2U << 20;
constexpr unsigned frame_queue_frames = 256;

struct QueuedFrame {
    uint32_t at; // in `bytes`
    uint32_t length;
};

struct FrameQueue {
    QueuedFrame frames[frame_queue_frames]; // a ring: `count` frames, starting at `first`
    unsigned first;
    unsigned count;
    uint8_t bytes[frame_queue_bytes]; // only the part that frames have used is ever touched
};

// Appends a copy of a frame. Returns false and does nothing when it does not fit.
bool queue_frame(FrameQueue &queue, const uint8_t *data, size_t length);

// The oldest frame; null when there is none. Its bytes do not move until it is dropped.
const QueuedFrame *oldest_frame(const FrameQueue &queue);
void drop_oldest_frame(FrameQueue &queue);

void empty_frame_queue(FrameQueue &queue);
