#pragma once

// Finds the pictures in what ffmpeg writes: JPEGs with a few header lines before each.
// Stands on: nothing else of ours.

#include <optional>
#include <string>

constexpr size_t largest_jpeg = 4 << 20; // bytes

struct JpegParts {
    std::string received;   // that is not yet a whole picture
    bool is_broken = false; // what came is no such stream; nothing more is taken from it
};

// The next whole picture; nothing if there is none yet.
std::optional<std::string> next_jpeg(JpegParts &parts);
