#pragma once

// Decides which pictures go to the daemon, and counts the others.
// Stands on: nothing else of ours.

#include <cstddef>
#include <cstdint>
#include <span>

// A picture that is lost spoils those that follow, up to the next key frame: they are left out too.
// The first picture is a key frame.
struct PictureGate {
    bool waits_for_key = true;
    uint64_t passed = 0;
    uint64_t bytes = 0;    // of those
    uint64_t too_long = 0; // longer than a slot
    uint64_t no_room = 0;  // the ring was full, or gone
    uint64_t no_key = 0;   // they follow one that was lost
};

enum class Verdict : uint8_t {
    publish,
    too_long,
    no_room,
    no_key,
};

// What to do with a picture of `size` bytes; it is counted.
Verdict judge_picture(PictureGate &gate, size_t size, bool is_key, size_t most, bool has_room);

// Can a decoder begin with this piece of a stream? It has a sequence parameter set, or a slice of a
// key frame, before any other slice.
bool begins_stream(std::span<const uint8_t> piece);

// All that were left out.
uint64_t dropped_pictures(const PictureGate &gate);
