#pragma once

// Keeps the last group of pictures for all viewers, and knows what each of them gets next.
// Stands on: beacon_web/video_track.

#include "beacon_web/video_track.h"

#include <deque>
#include <optional>
#include <string>

// Pictures are numbered from 0. The ring has those from the last key picture on, so that a newcomer
// sees something at once, and a few before it, so that a viewer who is a little behind misses none.
struct PictureRing {
    std::deque<Fragment> pictures;
    uint64_t first = 0;   // the number of the oldest one
    uint64_t key = 0;     // the number of the last key picture
    bool has_key = false; // and the ring still has it
    size_t bytes = 0;     // of all
};

constexpr uint64_t pictures_before_key = 8;
constexpr size_t largest_ring = 6 << 20; // bytes; of a longer group the beginning is dropped
constexpr size_t most_pictures = 1200;

void add_picture(PictureRing &ring, Fragment picture);

// Where a viewer is.
struct Viewing {
    bool has_begun = false;
    uint64_t next = 0;                       // the number of its next picture
    std::shared_ptr<const MovieStart> start; // that it was told
    uint32_t sequence = 0;                   // of its last fragment
    uint64_t time = 0;                       // of its next fragment; without gaps
    uint64_t skipped = 0;                    // pictures that it was too slow for
};

// The viewer's next picture, owned by the ring; null: there is none yet. A viewer who has fallen
// behind goes on at the last key picture. When the fragment's `start` is not the viewer's, it has
// to be sent first.
const Fragment *next_picture(const PictureRing &ring, Viewing &viewing);

// Notes that the viewer gets this picture, and writes its times into the viewer's copy.
void pass_picture(Viewing &viewing, const Fragment &picture, uint8_t *copy);
