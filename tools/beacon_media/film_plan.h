#pragma once

// Decides when a film begins and ends, and what it is called.
// Stands on: nothing else of ours.

#include <cstdint>
#include <ctime>
#include <string>

// FAT files end at 4 GB.
constexpr uint64_t longest_film = 3900000000; // bytes
// So much stays free for everybody else.
constexpr uint64_t least_free = 64000000; // bytes

// What a decision about the next picture is made from.
struct FilmView {
    bool is_open = false;     // a film is being written
    bool is_key = false;      // the picture
    bool has_space = true;    // the storage has
    bool has_changed = false; // the picture has another size than the film, or its place is another
    bool lacks_sound = false; // there is sound, and the film has none
    uint64_t bytes = 0;       // of the film
};

enum class FilmStep : uint8_t {
    write, // into the open film
    begin, // a film, after ending the open one
    stop,  // end the open film, if there is one: there is no space
    leave, // the picture out: no film can begin with it
};

FilmStep plan_film(const FilmView &view);

// "DCIM/20240131" for a time, and the file in it without its ending, "142503". `number` is 1, or
// more when there is such a file already: "142503-2".
std::string film_folder(const tm &time);
std::string film_name(const tm &time, int number);
