#include "beacon_sim/options.h"

#include "source/command_line.h"

#include <CLI/CLI.hpp>

static void add_options(CLI::App &app, Options &options) {
    app.add_option("--video", options.video_file, "play this file (default: a test picture)")
        ->type_name("FILE");
    app.add_flag("--once", options.is_once, "play it once and exit (default: loop)")
        ->needs("--video");
    app.add_option_function<std::string>(
           "--size",
           [&options](const std::string &text) {
               const std::string error = take_size(text, options.width, options.height);
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
    add_options(app, options);
    return parse_command_line(app, argc, argv, status);
}
