#pragma once

// Puts changed settings of streams, transcoding and audio into effect.
// Stands on: config/config, config/restream_clients, config/writer, core/process_control,
// media/video_source.

// Each function is called after the settings of its command have been stored in the record, on the
// command's thread. It saves and stops the helper programs concerned; their supervisors start them
// again with the new settings.

#include <cjson/cJSON.h>

// The restream list is parsed before it is saved.
void then_streaming_udp(const cJSON *command);
void then_streaming_rtmp(const cJSON *command);
void then_streaming_rtsp(const cJSON *command);
void then_streaming_srt(const cJSON *command);

// The frame rings are reopened before the settings are saved.
void then_transcoding(const cJSON *command);
void then_audio(const cJSON *command);
