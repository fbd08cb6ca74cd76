#pragma once

#include <cstddef>
#include <cstdint>

// The status record that all clients get ten times a second.

constexpr size_t status_record_size = 41;

// Where recordings go, as the record tells it.
enum StoragePlace : uint8_t {
    storage_not_examined = 0,
    storage_internal = 1, // /mnt
    storage_external = 2, // /media
    storage_none = 255,   // nowhere is free space
};

struct Storage {
    StoragePlace place;
    uint32_t free_megabytes;
};

// What the record tells that is not a setting.
struct BoardStatus {
    uint8_t client_count;
    bool access_point_active;
    bool wifi_connected;
    bool camera_connected;
    bool data_present;
    bool video_present;
    int32_t rtmp_number; // numbers that the helper services publish
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
    int movement_nearest; // to the camera's position
};

struct ConfigRecord;

// Writes the record's status_record_size bytes.
void fill_status_record(const BoardStatus &status, const ConfigRecord &config, uint8_t *record);

// The automatic choice between the two places' free megabytes: the larger one, external on a tie,
// none when both are 0.
Storage choose_storage(uint32_t internal_megabytes, uint32_t external_megabytes);

// Gathers the board's status, mounts and chooses the storage for the recorder (not on a slow
// board) and sends the record to all clients. Main thread.
void poll_status();
