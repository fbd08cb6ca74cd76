#include "beacon_media/board_settings.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ini.h>
#include <sys/statvfs.h>
#include <unistd.h>

#define RUN_FOLDER "/run/quillorbeacon/"

constexpr int line_buffer_size = 10000;

struct NumberKey {
    const char *name;
    int BoardSettings::*member;
};
constexpr NumberKey number_keys[] = {
    {"recording_enabled", &BoardSettings::recording_enabled},
    {"make_preview", &BoardSettings::make_preview},
    {"audio_enabled", &BoardSettings::audio_enabled},
    {"audio_autogain", &BoardSettings::audio_autogain},
    {"audio_volume", &BoardSettings::audio_volume},
    {"rtsp_server_enabled", &BoardSettings::rtsp_server_enabled},
    {"stream_rtmp_enabled", &BoardSettings::stream_rtmp_enabled},
    {"stream2_rtmp_enabled", &BoardSettings::stream2_rtmp_enabled},
    {"stream_srt_enabled", &BoardSettings::stream_srt_enabled},
    {"transcoding_enabled", &BoardSettings::transcoding_enabled},
    {"transcoding_bitrate", &BoardSettings::transcoding_bitrate},
    {"resize_enabled", &BoardSettings::resize_enabled},
    {"resize_width", &BoardSettings::resize_width},
    {"resize_height", &BoardSettings::resize_height},
};

struct TextKey {
    const char *name;
    std::string BoardSettings::*member;
};
constexpr TextKey text_keys[] = {
    {"stream_rtmp_url", &BoardSettings::stream_rtmp_url},
    {"stream_rtmp_key", &BoardSettings::stream_rtmp_key},
    {"stream2_rtmp_url", &BoardSettings::stream2_rtmp_url},
    {"stream2_rtmp_key", &BoardSettings::stream2_rtmp_key},
    {"stream_srt_url", &BoardSettings::stream_srt_url},
};

static std::string without_quotes(const char *value) {
    std::string text;
    for (const char *at = value; *at != '\0'; ++at) {
        if (*at != '"') {
            text += *at;
        }
    }
    return text;
}

static int take_key(void *user, const char *section, const char *name, const char *value) {
    auto &settings = *static_cast<BoardSettings *>(user);
    if (section[0] != '\0') {
        return 1;
    }
    for (const NumberKey &key : number_keys) {
        if (strcmp(key.name, name) == 0) {
            settings.*key.member = static_cast<int>(strtol(value, nullptr, 10));
        }
    }
    for (const TextKey &key : text_keys) {
        if (strcmp(key.name, name) == 0) {
            settings.*key.member = without_quotes(value);
        }
    }
    return 1;
}

BoardSettings read_settings() {
    // A line of radio-control channels is long.
    ini_use_stack = false;
    ini_max_line = line_buffer_size;
    ini_initial_alloc = line_buffer_size;
    ini_allow_multiline = false;
    BoardSettings settings;
    ini_parse(RUN_FOLDER "config.conf", take_key, &settings);
    return settings;
}

bool recording_is_asked_for() {
    return access(RUN_FOLDER "recorder-enabled", F_OK) == 0;
}

std::string recording_place() {
    char text[100] = {};
    FILE *file = fopen(RUN_FOLDER "recorder_place", "re");
    if (file == nullptr) {
        return "";
    }
    const size_t length = fread(text, 1, sizeof text - 1, file);
    fclose(file);
    return {text, length};
}

// Readers see the old number or the new one.
void publish_number(const char *name, uint64_t number) {
    const std::string path = std::string(RUN_FOLDER) + name;
    const std::string next = path + ".new";
    FILE *file = fopen(next.c_str(), "we");
    if (file == nullptr) {
        return;
    }
    fprintf(file, "%llu\n", static_cast<unsigned long long>(number));
    if (fclose(file) == 0) {
        rename(next.c_str(), path.c_str());
    }
}

uint64_t free_bytes(const std::string &folder) {
    struct statvfs found {};
    if (statvfs(folder.c_str(), &found) != 0) {
        return 0;
    }
    return uint64_t{found.f_bavail} * found.f_frsize;
}
