#pragma once

// Writes a picture of the stream as a JPEG file.
// Stands on: beacon_media/engine.

#include <cstdint>
#include <span>
#include <string>

// `picture` is a key frame with its parameter sets. The file appears when it is whole, and
// replaces none. Takes some tenths of a second, and `patience` at most (nanoseconds) unless the
// disk takes longer. False: `reason` says why. Any thread may call it.
bool write_still(std::span<const uint8_t> picture, const std::string &path, int64_t patience,
                 std::string &reason);
