#pragma once

// What the sources' command lines share.
// Stands on: source/complain.

#include <string>

namespace CLI {
class App;
}

// Reads the command line. False: the program ends with `status`, which is 0 after help or the
// version was printed, and 2 after a message. What adds options goes before it.
bool parse_command_line(CLI::App &app, int argc, char **argv, int &status);

// "1280x720": even numbers from 64 to 4096. Returns a complaint, or nothing.
std::string take_size(const std::string &text, unsigned &width, unsigned &height);
