#pragma once

// Reads the command line.
// Stands on: beacon_media/source_words, source/command_line.

#include "beacon_media/source_words.h"

#include <string>

// docs/man/beacon-source.1 describes the options.
struct Options {
    SourceWords source;
    std::string source_text; // as it was written
    EncoderWords encoder;
    bool is_loop = false;
    bool has_stats = false;
    PipelineWords audio;
    std::string telemetry; // a command, or "none"; empty: only our own lines
};

// Reads the command line. False: the program ends with `status`, which is 0 after help or the
// version was printed, and 2 after a message.
bool parse_options(int argc, char **argv, Options &options, int &status);
