#pragma once

// Sends the status record.
// Stands on: automove/movement_list, automove/movement_runner, config/config, config/wlan_iface,
// core/storage, media/data_source, media/video_source, net/relay, rc/rc_block.

#include "core/storage.h"

#include <cstddef>
#include <cstdint>

// All clients get the record ten times a second.

constexpr size_t status_record_size = 41;

// Everything in the record that is not a setting.
struct BoardStatus {
    uint8_t client_count;
    bool access_point_active;
    bool wifi_connected;
    bool camera_connected;
    bool data_present;
    bool video_present;
    int32_t rtmp_number; // published by the helper services
    int32_t recorder_number;
    int32_t rtsp_number;
    uint32_t srt_seconds; // since the SRT client connected, 0: unknown
    int32_t millidegrees; // of the processor
    uint8_t rc1_state;
    uint8_t rc2_state;
    Storage storage;
    bool movement_running;
    int movement_index;
    int movement_count;
    int movement_nearest; // to where the camera points
};

struct ConfigRecord;

// Writes the record's status_record_size bytes.
void fill_status_record(const BoardStatus &status, const ConfigRecord &config, uint8_t *record);

// Gathers the board's status and sends the record to all clients. Never waits for a program or a
// disk. Main thread.
void poll_status();
