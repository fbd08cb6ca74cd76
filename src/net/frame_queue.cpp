#include "net/frame_queue.h"

#include <cstring>

constexpr uint32_t no_room = UINT32_MAX;

// The offset at which `length` bytes fit in one piece. Frames follow each other; the first one that
// does not fit before the end goes to the beginning.
static uint32_t place_for(const FrameQueue &queue, size_t length) {
    if (queue.count == 0) {
        return length <= frame_queue_bytes ? 0 : no_room;
    }
    const QueuedFrame &oldest = queue.frames[queue.first];
    const QueuedFrame &newest = queue.frames[(queue.first + queue.count - 1) % frame_queue_frames];
    const uint32_t end = newest.at + newest.length;
    if (newest.at < oldest.at) {
        return end + length <= oldest.at ? end : no_room;
    }
    if (end + length <= frame_queue_bytes) {
        return end;
    }
    return length <= oldest.at ? 0 : no_room;
}

bool queue_frame(FrameQueue &queue, const uint8_t *data, size_t length) {
    const uint32_t at = place_for(queue, length);
    if (length == 0 || at == no_room || queue.count == frame_queue_frames) {
        return false;
    }
    memcpy(queue.bytes + at, data, length);
    queue.frames[(queue.first + queue.count) % frame_queue_frames] = {
        at, static_cast<uint32_t>(length)};
    ++queue.count;
    return true;
}

const QueuedFrame *oldest_frame(const FrameQueue &queue) {
    return queue.count != 0 ? &queue.frames[queue.first] : nullptr;
}

void drop_oldest_frame(FrameQueue &queue) {
    if (queue.count != 0) {
        queue.first = (queue.first + 1) % frame_queue_frames;
        --queue.count;
    }
}

void empty_frame_queue(FrameQueue &queue) {
    queue.count = 0;
}
