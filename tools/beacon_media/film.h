#pragma once

// Writes one film: fragmented MP4, readable up to the last fragment whatever happens.
// Stands on: beacon_media/av_input, beacon_media/engine, source/clocks, source/complain.

#include "beacon_media/av_input.h"

#include <cstdint>
#include <string>

struct Film {
    std::string path; // empty: none is open
    AvInput input;
    int fd = -1;          // of the same file, to have it written to the disk
    bool is_said = false; // a line told that it began, so one tells that it ends
};

inline bool film_is_open(const Film &film) {
    return film.input.pipeline != nullptr;
}

// Begins a film in a new file whose first picture came at `now`; pictures and sound go to `input`.
// False: `reason` says why.
bool begin_film(Film &film, const std::string &path, bool has_sound, int64_t now,
                std::string &reason);

// Has writing failed? `reason` says why.
bool film_has_failed(Film &film, std::string &reason);

// Has the disk taken some of the film that is open?
bool film_reaches_disk();

// Is the file still where it was begun? Not when its drive was removed or another one is mounted
// above it: what is written then is lost.
bool film_is_in_place(const Film &film);

// Says in one line that the film has begun.
void say_film(Film &film);

// Completes the film, closes it and says how long it is, in one line. One that say_film() was not
// called for ends without a line, and is removed if nothing of it could be written.
void end_film(Film &film);

inline uint64_t film_seconds(const Film &film) {
    return film.input.last < 0 ? 0 : static_cast<uint64_t>(film.input.last / 1000000000);
}
