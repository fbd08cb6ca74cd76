#pragma once

// Splits an H.264 stream into access units.
// Stands on: nothing else of ours.

#include <cstddef>
#include <cstdint>
#include <vector>

// An encoder gives a plain byte stream (Annex B: units after start codes), and the frame ring takes
// one coded picture with its headers at a time. This works for streams of whole frames, not
// separate fields, whose slices come in order.

using AccessUnit = std::vector<uint8_t>;

// The splitter's state: the unit that is not complete yet.
struct AccessUnitSplitter {
    std::vector<uint8_t> buffer;
    size_t scan = 0; // where the search for the next start code continues
    bool is_slice_seen = false;
};

// A unit that grows beyond this is handed out as it is, so that a stream without start codes does
// not fill the memory. It is larger than any slot of a ring.
constexpr size_t longest_access_unit = size_t{8} << 20;

// Takes the next piece of the stream, of any size, and appends the units that it completes. The
// units joined together are the stream, byte for byte.
void push_stream(AccessUnitSplitter &splitter, const uint8_t *data, size_t length,
                 std::vector<AccessUnit> &units);

// The stream has ended: appends what is left, at most one unit. The splitter can be used again.
void end_stream(AccessUnitSplitter &splitter, std::vector<AccessUnit> &units);
