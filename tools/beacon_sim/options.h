#pragma once

#include <string>

// What the command line asks for; docs/man/beacon-sim.1 is its manual.
struct Options {
    std::string video_file; // empty: the test picture
    bool is_once = false;
    unsigned width = 1280;
    unsigned height = 720;
    unsigned rate = 30;
    unsigned bitrate = 4000; // kbit/s
    std::string ring = "main";
    bool no_video = false;
    bool no_telemetry = false;
    bool no_audio = false;
    bool keys = false;
    std::string sticks; // a file, or "circle"
    std::string record; // a folder
};

// Reads the command line. Returns true, or false with the exit status: 0 after help or the version
// was printed, 2 after a message.
bool parse_options(int argc, char **argv, Options &options, int &status);
