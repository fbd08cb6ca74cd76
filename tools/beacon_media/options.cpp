#include "beacon_media/options.h"

#include "source/command_line.h"

#include <CLI/CLI.hpp>

static void take_picture_size(const std::string &text, EncoderWords &words) {
    const std::string error = take_size(text, words.width, words.height);
    if (!error.empty()) {
        throw CLI::ValidationError("--size", error);
    }
}

static void take_source(const std::string &text, Options &options) {
    const auto source = parse_source(text);
    if (!source) {
        throw CLI::ValidationError("SOURCE", "neither -, test, exec:COMMAND, a file, /dev/... nor "
                                             "rtsp://...: " +
                                                 text);
    }
    options.source = *source;
    options.source_text = text;
}

static void take_audio(const std::string &text, Options &options) {
    const auto audio = audio_pipeline(text);
    if (!audio) {
        throw CLI::ValidationError("--audio", "neither none, test nor alsa:DEVICE: " + text);
    }
    options.audio = *audio;
}

static void add_options(CLI::App &app, Options &options) {
    app.add_option_function<std::string>(
           "source", [&options](const std::string &text) { take_source(text, options); },
           "-: H.264 on standard input; exec:COMMAND: H.264 that it prints; test: a picture made "
           "here; a file; /dev/videoN; rtsp://...")
        ->type_name("SOURCE")
        ->required();
    app.add_flag("--loop", options.is_loop, "play a file again and again");
    app.add_option_function<std::string>(
           "--size",
           [&options](const std::string &text) { take_picture_size(text, options.encoder); },
           "the size of what is encoded here (1280x720)")
        ->type_name("WxH");
    app.add_option("--rate", options.encoder.rate, "its frames per second, 1 to 120 (30)")
        ->check(CLI::Range(1, 120))
        ->type_name("N");
    app.add_option("--bitrate", options.encoder.bitrate, "its kbit/s, 100 to 50000 (4000)")
        ->check(CLI::Range(100, 50000))
        ->type_name("N");
    app.add_option_function<std::string>(
           "--audio", [&options](const std::string &text) { take_audio(text, options); },
           "sound: alsa:DEVICE, test or none (none)")
        ->type_name("FROM");
    app.add_option("--telemetry", options.telemetry,
                   "send the lines that this command prints; none: send nothing")
        ->type_name("COMMAND");
    app.add_flag("--stats", options.has_stats, "print a line each second");
}

bool parse_options(int argc, char **argv, Options &options, int &status) {
    CLI::App app("Brings a camera's H.264 video into the daemon's frame ring, with sound and "
                 "telemetry. See beacon-source(1).",
                 "beacon-source");
    app.footer(
        "beacon-source --from FILE reads SOURCE and OPTIONS from the first line of FILE that is no "
        "comment, and waits while there is none.");
    app.set_version_flag("--version", "beacon-source " BEACON_SOURCE_VERSION);
    add_options(app, options);
    return parse_command_line(app, argc, argv, status);
}
