#pragma once

// The layout of the frame rings, the shared memory through which video reaches the daemon.
// Stands on: nothing else of ours.

#include <cstddef>
#include <cstdint>

// The video source fills one ring with encoded frames, the transcoder another. A ring is a header
// and 200 slots. Numbers are little-endian and may be unaligned, so they are read byte by byte.
//
// The producer fills a slot (length, identifier, data) and sets its ready flag last. The daemon
// takes the slots in order, starting at the read index. It clears the ready flag when it takes a
// frame, before it reads the data: the producer leaves that slot alone until the next frame is
// taken. A frame with the same identifier as the one before is dropped. docs/source-protocol.md
// explains what a producer must do, with an example in C.

constexpr const char *main_ring_name = "quillorbeacon_framebuffer";
constexpr const char *transcoding_ring_name = "quillorbeacon_framebuffer_transcoding";

// The ring header. The daemon sets the two marks whenever it prepares a ring.
constexpr size_t ring_mark0_at = 0;      // u8, 1
constexpr size_t ring_mark1_at = 1;      // u8, 0
constexpr size_t ring_read_index_at = 6; // u16, 0 to 199, written by the daemon
constexpr size_t ring_header_size = 24;
constexpr unsigned ring_slot_count = 200;

// One slot.
constexpr size_t slot_length_at = 0;          // u32, bytes of data; 0: empty
constexpr size_t slot_identifier_at = 4;      // u16
constexpr size_t slot_identifier_byte_at = 6; // u8, the second part of the identifier
constexpr size_t slot_ready_at = 9;           // u8, not 0: a frame is waiting
constexpr size_t slot_data_at = 18;           // the frame, one H.264 access unit

constexpr uint32_t main_frame_capacity = 300000;
constexpr uint32_t transcoding_frame_capacity = 65000;

constexpr size_t slot_size(uint32_t frame_capacity) {
    return slot_data_at + frame_capacity;
}

constexpr size_t ring_size(uint32_t frame_capacity) {
    return ring_header_size + ring_slot_count * slot_size(frame_capacity);
}

static_assert(slot_size(main_frame_capacity) == 300018);
static_assert(slot_size(transcoding_frame_capacity) == 65018);
static_assert(ring_size(main_frame_capacity) == 60003624);
static_assert(ring_size(transcoding_frame_capacity) == 13003624);
