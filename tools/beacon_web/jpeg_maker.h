#pragma once

// Makes JPEGs of the live picture, with an ffmpeg that runs only while somebody looks.
// Stands on: beacon_web/jpeg_parts, beacon_web/picture_ring, client/clock.

#include "beacon_web/jpeg_parts.h"
#include "beacon_web/picture_ring.h"
#include "client/clock.h"

#include <memory>
#include <string>
#include <sys/types.h>

// One for all who look. It is given the film that browsers get. Nothing here waits for it: pictures
// that it is too slow for are skipped.

struct JpegMaker {
    int readable = -1;                       // an epoll descriptor to add its output to
    pid_t process = -1;                      // -1: none runs
    int input = -1;                          // what it reads; -1: closed, it is to end
    int output = -1;                         // what it writes
    Viewing viewing;                         // of the film
    std::string unsent;                      // of the film, that it has yet to take
    JpegParts parts;                         // that came from it
    TimePoint wanted{};                      // the last time that somebody looked
    TimePoint began{};                       // when it was started
    TimePoint made{};                        // when it made the last picture
    uint64_t number = 0;                     // of the last picture, counted from 1
    std::shared_ptr<const std::string> jpeg; // the last picture
};

constexpr double lingering_seconds = 3.0; // that it runs on when nobody looks
constexpr double stuck_seconds = 10.0;    // without a picture, after which it is ended

// Somebody looks. Starts it if it does not run. Empty, or in words why there are no pictures.
std::string want_jpegs(JpegMaker &maker, TimePoint now);

// Gives it new pictures of the film and takes what it has made: call it when there are new ones,
// when `readable` is, and twenty times a second. Ends it when nobody looks. True: there is a new
// picture.
bool step_jpegs(JpegMaker &maker, const PictureRing &ring, TimePoint now);
