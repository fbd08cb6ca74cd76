#pragma once

// Turns the words of the command line into the engine's pipelines.
// Stands on: nothing else of ours.

#include <cstdint>
#include <optional>
#include <string>

enum class SourceKind : uint8_t {
    input,   // "-": H.264 on standard input
    command, // "exec:COMMAND": H.264 on its standard output
    file,
    test,   // a picture made here
    device, // "/dev/...": V4L2
    rtsp,
};

struct SourceWords {
    SourceKind kind = SourceKind::input;
    std::string text; // the command, path or URL
};

// How to encode what is not H.264 yet.
struct EncoderWords {
    unsigned width = 1280;
    unsigned height = 720;
    unsigned rate = 30;      // pictures per second
    unsigned bitrate = 4000; // kbit/s
};

// A pipeline in the engine's own language. Nothing that a user wrote is part of the text: it is set
// as a property of one element.
struct PipelineWords {
    std::string description;
    std::string property; // of that element; empty: none
    std::string value;
    std::string element = "input"; // its name
};

// Which engine parts the machine has, and what a device gives.
struct EngineParts {
    bool has_clock = false;            // an element that writes the time into the picture
    bool has_hardware_encoder = false; // V4L2
    bool device_gives_h264 = false;
};

// Reads SOURCE. Nothing: it is empty, or names no source.
std::optional<SourceWords> parse_source(const std::string &text);

// The pipeline of a source. It ends in an element "pictures", which gives whole access units in
// Annex B format, each key frame with its parameter sets. A command's or standard input's
// descriptor is to be set as the property "fd".
PipelineWords video_pipeline(const SourceWords &source, const EncoderWords &encoder,
                             const EngineParts &parts);

// Reads the value of --audio: "none", "test" or "alsa:DEVICE". Nothing: it is neither.
// The pipeline ends in an element "sound"; for "none" its text is empty.
std::optional<PipelineWords> audio_pipeline(const std::string &text);
