#pragma once

// Reads the board's settings and what the daemon says to its helpers in files.
// Stands on: nothing else of ours.

#include <cstdint>
#include <string>

// The settings of docs/settings.md that concern the helpers; 0 and empty where the file has none.
struct BoardSettings {
    int recording_enabled = 0;
    int make_preview = 0;
    int audio_enabled = 0;
    int audio_autogain = 0;
    int audio_volume = 0;
    int rtsp_server_enabled = 0;
    int stream_rtmp_enabled = 0;
    std::string stream_rtmp_url;
    std::string stream_rtmp_key;
    int stream2_rtmp_enabled = 0;
    std::string stream2_rtmp_url;
    std::string stream2_rtmp_key;
    int stream_srt_enabled = 0;
    std::string stream_srt_url;
    int transcoding_enabled = 0;
    int transcoding_bitrate = 0;
    int resize_enabled = 0;
    int resize_width = 0;
    int resize_height = 0;
};

// Reads /run/quillorbeacon/config.conf, which the daemon writes at each change. All is off when it
// cannot be read.
BoardSettings read_settings();

// Is the recorder switched on by a client?
bool recording_is_asked_for();

// The folder that the daemon has chosen to record in; empty: none yet.
std::string recording_place();

// Publishes the number of a helper for the status record, in /run/quillorbeacon/NAME.
void publish_number(const char *name, uint64_t number);

// The bytes free for programs on the file system of a folder; 0 when it cannot be asked.
uint64_t free_bytes(const std::string &folder);
