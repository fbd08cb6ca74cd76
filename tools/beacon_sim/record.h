#pragma once

#include <cstdint>
#include <cstdio>
#include <sha2.h>
#include <string>
#include <vector>

// A record of what was published, in a folder, for comparison with what a client received:
//
//     published.h264   the video, whole access units up to a size
//     frames.bin       per frame: when it was published (CLOCK_MONOTONIC, ns) and the video's
//                      length with it, 8 bytes each, little-endian; written frame by frame
//     record.json      written last: totals, and the SHA-256 of the whole video

// Bytes of video kept in published.h264: some nine minutes at the usual rate. What is beyond is
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

// What record.json says beside the video's totals.
struct RecordTotals {
    uint64_t telemetry;
    uint64_t audio;
    uint64_t commands;
    double turned; // the widest angle while a stick script played, in degrees
};

// Opens the files; the folder is made if it is missing. False after a message.
bool open_record(Record &record, const std::string &folder);

// Notes one frame.
void add_to_record(Record &record, const std::vector<uint8_t> &unit, int64_t published);

// Closes the files and writes record.json. False after a message when anything was not written.
bool close_record(Record &record, const RecordTotals &totals);
