#pragma once

// The layout of a file piece, the payload of a relay_type_file packet.
// Stands on: net/relay_packet.

#include "net/relay_packet.h"

#include <cstddef>

// Offsets in the payload; numbers are little-endian.
constexpr size_t piece_length_at = 0;    // u16, data bytes in this piece
constexpr size_t piece_offset_at = 2;    // u32, of the piece in the file
constexpr size_t piece_full_size_at = 6; // u32, of the file
constexpr size_t piece_data_at = 10;
constexpr size_t piece_capacity = 59990; // data bytes
static_assert(piece_data_at + piece_capacity == relay_payload_capacity);
