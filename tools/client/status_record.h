#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

// The status record that registered clients get ten times a second, and what it says in words.

struct StatusRecord {
    uint8_t app_type;
    int client_count;
    bool access_point, wifi, camera_network;            // links that are up
    bool is_recording, udp, rtmp, srt, rtsp;            // services that are switched on
    uint32_t rtmp_number, recorder_number, rtsp_number; // as the services publish them
    uint8_t rc_state[2];                                // 0 absent, 1 present, 2 calibrating
    bool osd, osd_borders;
    int temperature; // degrees Celsius
    uint8_t version[3];
    uint8_t storage_place; // 0 not examined, 1 internal, 2 external, 255 none with free space
    uint32_t free_megabytes;
    uint32_t srt_seconds; // since the SRT client connected; 0: unknown
    bool movement_running;
    int movement_index, movement_count, movement_nearest; // counted from 0
    bool data_source, video;                              // present

    bool operator==(const StatusRecord &) const = default;
};

// Nothing when the payload is no status record.
std::optional<StatusRecord> parse_status(std::span<const uint8_t> payload);

// "Storage" and "internal, 12.3 GB free", and so on: a name and what there is to say about it.
using StatusWords = std::vector<std::pair<std::string, std::string>>;
StatusWords status_words(const StatusRecord &record);

// The same in one line.
std::string status_line(const StatusRecord &record);

// "DJI Pocket 2 USB"; a number that is not known is told as one.
std::string app_type_text(int app_type);

// "950 MB" or "12.3 GB", of 10^6 and 10^9 bytes.
std::string megabytes_text(double megabytes);
