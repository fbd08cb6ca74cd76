#pragma once

// Reads the command line.
// Stands on: source/command_line.

#include <string>

// docs/man/beacon-sim.1 describes the options.
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

// Reads the command line. False: the program ends with `status`, which is 0 after help or the
// version was printed, and 2 after a message.
bool parse_options(int argc, char **argv, Options &options, int &status);
