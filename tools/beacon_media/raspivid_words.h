#pragma once

// Turns the options of the old camera program into those of today's.
// Stands on: nothing else of ours.

#include <string>
#include <vector>

struct CameraWords {
    std::vector<std::string> options; // of rpicam-vid
    std::vector<std::string> unknown; // those that it has nothing for
};

// `options`: without the program's name.
CameraWords translate_camera_options(const std::vector<std::string> &options);
