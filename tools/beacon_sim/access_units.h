#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// Splits an H.264 byte stream (Annex B: units behind start codes) into access units as it comes: an
// encoder hands out a plain stream, the frame ring takes one coded picture with its headers at a
// time. For streams of whole frames (not of separate fields) whose slices come in order.

using AccessUnit = std::vector<uint8_t>;

// What the splitter holds back: the unit that is not complete yet, and where it goes on.
struct AccessUnitSplitter {
    std::vector<uint8_t> buffer;
    size_t scan = 0; // where in the buffer the search for the next start code goes on
    bool is_slice_seen = false;
};

// A unit that grows beyond this is given up to here, so that a stream without start codes does not
// fill the memory. No slot of a ring takes one as long.
constexpr size_t longest_access_unit = size_t{8} << 20;

// Takes the next piece of the stream, of any size, and appends the units that it completes. The
// units put together are the stream, byte for byte.
void push_stream(AccessUnitSplitter &splitter, const uint8_t *data, size_t length,
                 std::vector<AccessUnit> &units);

// The stream has ended: appends what is left, one unit or none. The splitter is new again.
void end_stream(AccessUnitSplitter &splitter, std::vector<AccessUnit> &units);
