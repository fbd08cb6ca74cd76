#pragma once

// Takes photos, one at a time, by a thread of its own.
// Stands on: beacon_media/board_settings, beacon_media/film_file, beacon_media/film_plan,
// beacon_media/still.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// A photo takes some tenths of a second, and a disk that hangs keeps it for as long as it does; the
// thread that brings the pictures waits for neither. One thread calls these functions, and none of
// them waits.

struct Photo {
    std::string path;   // of the file; empty: there is none
    std::string reason; // why not
};

// Begins to write a picture, a key frame with its parameter sets, as a JPEG where recordings go.
// False: the last one is under way, or nobody has asked finished_photo() what became of it.
bool begin_photo(const std::vector<uint8_t> &picture);

// What has become of a photo, once for each.
std::optional<Photo> finished_photo();

bool photo_is_under_way();
