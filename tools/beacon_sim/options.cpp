#include "beacon_sim/options.h"

#include "source/complain.h"

#include <CLI/CLI.hpp>
#include <charconv>

constexpr unsigned smallest_side = 64;
constexpr unsigned largest_side = 4096;

static bool parse_side(std::string_view text, unsigned &side) {
    const char *end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, side);
    return error == std::errc{} && stopped == end && side >= smallest_side &&
           side <= largest_side && side % 2 == 0;
}

// "1280x720"
static std::string take_size(const std::string &text, Options &options) {
    const size_t cross = text.find('x');
    if (cross == std::string::npos ||
        !parse_side(std::string_view(text).substr(0, cross), options.width) ||
        !parse_side(std::string_view(text).substr(cross + 1), options.height)) {
        return "not a size like 1280x720, even numbers from 64 to 4096: " + text;
    }
    return {};
}

static void add_options(CLI::App &app, Options &options) {
    app.add_option("--video", options.video_file, "play this file (default: a test picture)")
        ->type_name("FILE");
    app.add_flag("--once", options.is_once, "play it once and end (default: again and again)")
        ->needs("--video");
    app.add_option_function<std::string>(
           "--size",
           [&options](const std::string &text) {
               const std::string error = take_size(text, options);
               if (!error.empty()) {
                   throw CLI::ValidationError("--size", error);
               }
           },
           "the picture's size (1280x720)")
        ->type_name("WxH");
    app.add_option("--rate", options.rate, "frames per second, 1 to 120 (30)")
        ->check(CLI::Range(1, 120))
        ->type_name("N");
    app.add_option("--bitrate", options.bitrate, "of the video, 100 to 50000 kbit/s (4000)")
        ->check(CLI::Range(100, 50000))
        ->type_name("N");
    app.add_option("--ring", options.ring, "frame ring to fill: main, transcoding (main)")
        ->check(CLI::IsMember({"main", "transcoding"}))
        ->type_name("NAME");
    app.add_flag("--no-video", options.no_video, "publish no video");
    app.add_flag("--no-telemetry", options.no_telemetry, "send no telemetry, take no commands");
    app.add_flag("--no-audio", options.no_audio, "send no sound");
    auto *keys = app.add_flag("--keys", options.keys, "move the sticks with the keyboard");
    app.add_option("--sticks", options.sticks,
                   "move the sticks by a script; \"circle\" is built in")
        ->type_name("FILE")
        ->excludes(keys);
    app.add_option("--record", options.record, "keep a record of what was published")
        ->type_name("DIR");
}

bool parse_options(int argc, char **argv, Options &options, int &status) {
    CLI::App app("Stands in for what is around the daemon on a board: a camera that publishes "
                 "video, telemetry and sound, its gimbal, and a radio control. See beacon-sim(1).",
                 "beacon-sim");
    app.set_version_flag("--version", "beacon-sim " BEACON_SIM_VERSION);
    try {
        add_options(app, options);
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
