#include "source/command_line.h"

#include "source/complain.h"

#include <CLI/CLI.hpp>
#include <charconv>

bool parse_command_line(CLI::App &app, int argc, char **argv, int &status) {
    try {
        app.parse(argc, argv);
        return true;
    } catch (const CLI::Success &asked) {
        status = app.exit(asked);
    } catch (const CLI::ParseError &error) {
        complain("%s", error.what());
        status = 2;
    }
    return false;
}

static bool parse_side(std::string_view text, unsigned &side) {
    constexpr unsigned smallest_side = 64;
    constexpr unsigned largest_side = 4096;
    const char *end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, side);
    return error == std::errc{} && stopped == end && side >= smallest_side &&
           side <= largest_side && side % 2 == 0;
}

std::string take_size(const std::string &text, unsigned &width, unsigned &height) {
    const size_t cross = text.find('x');
    if (cross == std::string::npos || !parse_side(std::string_view(text).substr(0, cross), width) ||
        !parse_side(std::string_view(text).substr(cross + 1), height)) {
        return "not a size like 1280x720, even numbers from 64 to 4096: " + text;
    }
    return {};
}
