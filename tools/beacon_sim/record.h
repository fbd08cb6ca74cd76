#pragma once

// Records what was published, in a folder.
// Stands on: source/complain.

#include <cstdint>
#include <cstdio>
#include <sha2.h>
#include <string>
#include <vector>

// The folder is for comparison with what a client received:
//
//     published.h264   the video, whole access units up to a size
//     frames.bin       for each frame: when it was published (CLOCK_MONOTONIC, ns) and the
//                      length of the video up to its end, 8 bytes each, little-endian; written
//                      frame by frame
//     record.json      written last: totals, and the SHA-256 of the whole video

// Bytes of video kept in published.h264: about nine minutes at the default bit rate. The rest is
// only counted and hashed.
constexpr uint64_t record_keep = uint64_t{1} << 28;

struct Record {
    std::string folder;
    uint64_t keep = record_keep;
    FILE *video = nullptr;
    FILE *frames_file = nullptr;
    uint64_t frames = 0;
    uint64_t length = 0; // bytes published
    uint64_t kept = 0;   // bytes in published.h264
    SHA2_CTX digest;     // of the whole video
};

// What record.json has besides the video's totals.
struct RecordTotals {
    uint64_t telemetry;
    uint64_t audio;
    uint64_t commands;
    double turned; // the largest angle while a stick script played, in degrees
};

// Creates the folder if it is missing, and opens the files. False after a message.
bool open_record(Record &record, const std::string &folder);

// Notes one frame.
void add_to_record(Record &record, const std::vector<uint8_t> &unit, int64_t published);

// Closes the files and writes record.json. False after a message: something was not written.
bool close_record(Record &record, const RecordTotals &totals);
