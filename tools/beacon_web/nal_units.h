#pragma once

// Splits an H.264 byte stream into its units.
// Stands on: nothing else of ours.

#include <cstdint>
#include <span>
#include <vector>

using ByteSpan = std::span<const uint8_t>;

// The types of unit that matter here.
enum NalType : uint8_t {
    nal_slice = 1,
    nal_key_slice = 5, // of a picture at which a decoder can begin
    nal_sei = 6,
    nal_sequence_set = 7,
    nal_picture_set = 8,
    nal_delimiter = 9,
    nal_filler = 12,
};

// Where the next start code (00 00 01) begins, from `from` on; stream.size(): nowhere.
size_t find_start_code(ByteSpan stream, size_t from);

// Does the stream begin with a start code, with or without a zero byte before it?
bool begins_with_start_code(ByteSpan stream);

// The units, without start codes and the zeros between them. What stands before the first start
// code is left out, and so are empty units. They belong to the stream's buffer.
std::vector<ByteSpan> split_units(ByteSpan stream);

// The type of a unit, which is not empty.
inline uint8_t nal_type(ByteSpan unit) {
    return unit[0] & 0x1FU;
}

inline bool is_slice(ByteSpan unit) {
    return nal_type(unit) >= nal_slice && nal_type(unit) <= nal_key_slice;
}

// Is it the first slice of a picture, as far as its own bytes tell?
inline bool is_first_slice(ByteSpan unit) {
    return is_slice(unit) && unit.size() > 1 && (unit[1] & 0x80U) != 0; // first_mb_in_slice is 0
}
