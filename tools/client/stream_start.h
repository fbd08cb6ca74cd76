#pragma once

// Finds where a decoder can begin in an H.264 stream.
// Stands on: nothing else of ours.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

// A decoder can begin at the start code of a sequence parameter set, which cameras send before a
// key frame. The stream comes in pieces of any size, and a start code may lie across two of them.
struct StreamStart {
    bool found = false;
    std::string held; // the last bytes that came, which may begin a start code
};

// Takes the next piece and returns what a decoder should get: nothing until the start is found, and
// everything from there on. `is_after_gap`: a piece was lost before this one.
std::string take_stream(StreamStart &start, std::span<const uint8_t> piece, bool is_after_gap);
