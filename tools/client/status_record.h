#pragma once

// Reads the status record, which registered clients get ten times a second.
// Stands on: client/packet.

#include "client/packet.h"

#include <cstdint>
#include <optional>

struct StatusRecord {
    uint8_t app_type;                        // what the board carries
    int client_count;                        // that are registered; counted once a second
    bool access_point, wifi, camera_network; // links that are up
    bool is_recording, udp, rtmp, srt, rtsp; // services that are switched on; they may not run
    uint32_t rtmp_number, recorder_number, rtsp_number; // as the services publish them; 0: none
    uint8_t rc_state[2]; // of RC1 and RC2: 0 absent, 1 present, 2 calibrating
    bool osd, osd_borders;
    int temperature;         // degrees Celsius
    uint8_t version[3];      // of the daemon
    uint8_t storage_place;   // 0 not examined, 1 internal, 2 external, 255 none with free space
    uint32_t free_megabytes; // of 10^6 bytes, at that place
    uint32_t srt_seconds;    // since the SRT client connected; 0: none, or unknown
    bool movement_running;
    int movement_index, movement_count, movement_nearest; // steps are counted from 0
    bool data_source, video;                              // are present

    bool operator==(const StatusRecord &) const = default;
};

// Nothing when the packet is no status record. Any thread.
std::optional<StatusRecord> parse_status(const PacketView &packet);
