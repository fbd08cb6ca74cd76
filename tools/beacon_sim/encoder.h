#pragma once

// Runs ffmpeg, which encodes a test picture or a file in real time.
// Stands on: source/audio_format, source/complain, source/spawn.

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

// What to encode.
struct EncoderOrder {
    std::string file;     // empty: a moving test picture with a clock
    bool is_once = false; // else it is started again whenever the file ends
    bool has_video = true;
    bool has_audio = false; // of the file
    unsigned width = 0;
    unsigned height = 0;
    unsigned rate = 0;           // frames per second
    unsigned bitrate = 0;        // kbit/s
    uint32_t frame_capacity = 0; // of the ring's slots, in bytes
};

struct Encoder {
    pid_t pid = -1;
    int video_fd = -1; // H.264 (Annex B); -1: none, or ended
    int audio_fd = -1; // samples as in audio_format.h; -1: none, or ended
};

// What a file has.
struct FileStreams {
    bool has_video = false;
    bool has_audio = false;
};

// Asks ffprobe. False after a message: there is no ffmpeg, or it cannot read the file.
bool probe_file(const std::string &file, FileStreams &streams);

// The command line for an order.
std::vector<std::string> encoder_arguments(const EncoderOrder &order);

// Starts ffmpeg in a session of its own, so that Ctrl-C in the terminal does not end it. False
// after a message.
bool start_encoder(Encoder &encoder, const EncoderOrder &order);

// Makes it end its streams after a whole frame.
void stop_encoder(const Encoder &encoder);

// Waits for its end, after killing it if `kill_first` is set. Returns whether it succeeded.
bool finish_encoder(Encoder &encoder, bool kill_first);
