#pragma once

// The command line of beacon-web.
// Stands on: nothing else of ours.

#include <cstdint>
#include <string>
#include <vector>

struct Options {
    std::string board = "127.0.0.1";
    uint16_t board_port = 5252;
    std::string address = "127.0.0.1"; // to listen at
    uint16_t port = 8080;              // 0: one that is free
    std::vector<std::string> allowed_hosts;
    std::string password_file;       // empty: everybody is let in
    std::string certificate, key;    // their files; empty: plain http
    bool has_camera_options = false; // may be changed
};

// False: the program is to end with `status`; what was wrong has been said.
bool parse_options(int argc, char **argv, Options &options, int &status);
