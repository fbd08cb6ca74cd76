#pragma once

// Turns coded pictures into what a browser plays, and drops those that it could not decode.
// Stands on: beacon_web/block_joiner, beacon_web/fmp4, client/clock.

#include "beacon_web/block_joiner.h"
#include "beacon_web/fmp4.h"
#include "client/clock.h"

#include <memory>
#include <optional>
#include <string>

// A stream as players know it. It changes when the camera changes its parameter sets.
struct MovieStart {
    std::string header; // movie_header()
    std::string codec;  // codec_name()
    unsigned width = 0;
    unsigned height = 0;
};

// A picture for the players. Many of them share it.
struct Fragment {
    std::shared_ptr<const std::string> data; // movie_fragment()
    std::shared_ptr<const MovieStart> start; // that the player must have had
    uint32_t duration = 0;                   // in units of 1/movie_timescale seconds
    bool is_key = false;
};

struct VideoTrack {
    ParameterSets sets;                      // as they came last
    SequenceSet set;                         // that pictures refer to
    std::shared_ptr<const MovieStart> start; // null: no parameter sets have come
    bool waits_for_key = true;
    unsigned last_reference = 0; // the frame number of the last reference picture
    TimePoint arrived{};         // the last picture
    double interval = 1.0 / 30;  // seconds between two pictures, averaged
    uint64_t dropped = 0;        // pictures, while waiting for a key picture
};

// Takes a picture that arrived at `now`. Nothing when it cannot be shown: a picture before it was
// lost, and it is no key picture.
std::optional<Fragment> take_picture(VideoTrack &track, const CodedPicture &picture, TimePoint now);
