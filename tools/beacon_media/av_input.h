#pragma once

// Feeds pictures and sound as they come into a pipeline that muxes them.
// Stands on: beacon_media/engine, beacon_media/sound_plan, source/audio_format, source/clocks.

#include "beacon_media/engine.h"

#include <cstdint>
#include <span>
#include <string>

// Times are nanoseconds of CLOCK_MONOTONIC. What came at `begin` has the time 0 in the pipeline.
struct AvInput {
    Pipeline *pipeline = nullptr; // the caller's; null: none
    bool has_sound = false;
    int64_t begin = 0;
    int64_t last = -1; // the last picture's time in the pipeline
    int64_t sound = 0; // where the sound in the pipeline ends
    uint64_t pictures = 0;
    uint64_t bytes = 0; // of pictures and sound
    uint64_t picture_bytes = 0;
};

// The beginning of such a pipeline, up to the muxer, which is called "mux". `mux` is the muxer with
// its properties and what follows it.
std::string av_words(const std::string &mux, bool has_sound);

// Can sound be encoded here?
bool can_encode_sound();

// Adds a picture, or sound, that came at `now`. Sound that is missing is silence, and
// sound that comes faster than time passes is left out. False: the pipeline does not take it.
bool add_picture(AvInput &input, const Piece &picture, int64_t now);
bool add_sound(AvInput &input, std::span<const uint8_t> samples, int64_t now);

// Nothing more comes.
void end_av_input(AvInput &input);
