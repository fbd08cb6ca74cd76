#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

// Finds where a decoder can begin in an H.264 byte stream: the start code of a sequence parameter
// set, which cameras send in front of a keyframe. The stream comes in pieces of any size, and a
// start code may lie across two of them.
struct StreamStart {
    bool found = false;
    std::string held; // the end of what has come, where a start code may have begun
};

// Takes the next piece; returns what is to be written: nothing before the start was found, the
// stream from there on afterwards. `is_after_gap`: a piece was lost before this one.
std::string take_stream(StreamStart &start, std::span<const uint8_t> piece, bool is_after_gap);
