#pragma once

// Sends the daemon's video and sound elsewhere through a pipeline that is begun again whenever it
// fails.
// Stands on: beacon_media/av_input, beacon_media/engine, source/clocks, source/complain.

#include "beacon_media/av_input.h"
#include "beacon_media/engine.h"
#include "source/clocks.h"

#include <cstdint>
#include <span>
#include <string>

struct LiveOutput {
    std::string name;     // for messages
    std::string mux;      // the muxer and what follows it, as av_words() takes it
    std::string property; // of the element called "output"
    std::string value;
    AvInput input;
    int64_t picture_heard = 0;
    uint64_t counted = 0; // bytes, by newly_sent()
    int64_t due = 0;      // when to begin again
    int64_t pause = nanoseconds_per_second;
    std::string said; // the last complaint
};

inline bool output_is_open(const LiveOutput &output) {
    return output.input.pipeline != nullptr;
}

// Sends a picture. A key frame begins the output if it is due. `with_sound`: there is sound to go
// with it. An output that has none then is closed, and begins again with sound after a second.
void send_picture(LiveOutput &output, const Piece &picture, bool with_sound, int64_t now);

void send_live_sound(LiveOutput &output, std::span<const uint8_t> samples, int64_t now);

// Tells a failure, once, and closes the output until it is due again: after a second, and twice as
// long each time, up to half a minute. Closes it without a word when no picture has come for 10 s.
void look_after_output(LiveOutput &output, int64_t now);

// The bytes of pictures that have left the output since the last call; what still waits in it has
// not.
uint64_t newly_sent(LiveOutput &output);

void close_output(LiveOutput &output);
