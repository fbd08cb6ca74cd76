#pragma once

// Splits the daemon's stream into pictures.
// Stands on: beacon_media/engine, source/clocks, source/complain.

#include "beacon_media/engine.h"

#include <cstdint>
#include <span>

// Knows the engine, whose parser works in the calling thread here: handing a picture on to a thread
// of the engine and back costs more than to split it.
struct Parser;

struct Splitter {
    Parser *parser = nullptr; // null: not started
    int64_t last = 0;         // the last picture's time
};

// Hands over what came at `now`, starting the splitter if need be.
void push_stream(Splitter &splitter, std::span<const uint8_t> data, int64_t now);

// Takes the next picture that is whole; its stamp is when it came. A picture is whole when the next
// one begins. False: there is none. The picture is valid until the next call.
bool next_picture(Splitter &splitter, Piece &picture);

struct PictureSize {
    int width = 0;
    int height = 0;

    bool operator==(const PictureSize &) const = default;
};

// The size of the last picture that was taken.
PictureSize picture_size(const Splitter &splitter);

// The stream is over: the last picture is whole, too.
void end_stream(Splitter &splitter);

// Forgets what is left of the stream.
void stop_splitter(Splitter &splitter);
