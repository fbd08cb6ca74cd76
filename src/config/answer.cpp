#include "config/answer.h"

#include "base/file_text.h"
#include "base/shell.h"
#include "base/version.h"
#include "config/config.h"
#include "config/config_keys.h"
#include "config/disk_space.h"
#include "config/display_modes.h"
#include "config/wlan_iface.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <span>

constexpr size_t model_limit = 1000;
constexpr size_t address_limit = 20;
constexpr size_t command_output_limit = 9999;

// One member of a section: a setting, under the name that clients know, or a live fact.
struct AnswerMember {
    const char *name;
    const char *key;       // of the setting; null for a live fact
    std::string (*live)(); // the fact as JSON; null for a setting
};

// The display busy flag: true while a display query is running.
static std::atomic<bool> display_busy;

static std::string quoted(const std::string &text) {
    return "\"" + text + "\"";
}

static std::string board_model() {
    return quoted(file_text(board_model_file, model_limit));
}

static std::string app_version() {
    const auto &[major_number, minor_number, patch] = program_version;
    return quoted(std::to_string(major_number) + "." + std::to_string(minor_number) + "." +
                  std::to_string(patch));
}

// The interface's address, from the file in which another process stores it.
static std::string interface_address(const char *setting) {
    const std::string path = std::string("/run/quillorbeacon/") + map_wlan_iface(setting) + ".ip";
    return quoted(file_text(path.c_str(), address_limit));
}

static std::string ap_address() {
    return interface_address(config_record().ap_iface);
}

static std::string wifi_address() {
    return interface_address(config_record().wifi_iface);
}

static std::string camera_address() {
    return interface_address(config_record().camera_iface);
}

static std::string free_internal() {
    return std::to_string(free_internal_megabytes());
}

static std::string free_external() {
    return std::to_string(free_external_megabytes());
}

static std::string zerotier_info() {
    return quoted(shell_output("zerotier-cli info", command_output_limit));
}

static std::string zerotier_networks() {
    return quoted(shell_output("zerotier-cli listnetworks", command_output_limit));
}

static std::string cea_modes() {
    return parse_mode_list(shell_output("tvservice -m CEA", command_output_limit));
}

static std::string dmt_modes() {
    return parse_mode_list(shell_output("tvservice -m DMT", command_output_limit));
}

// The members of each section, in the order of the reply.

constexpr AnswerMember info_members[] = {
    {"board_model", nullptr, board_model},
    {"app_type", "app_type", nullptr},
    {"app_version", nullptr, app_version},
    {"device_name", "device_name", nullptr},
};
constexpr AnswerMember ethernet_members[] = {
    {"enabled", "eth_static_ip_enabled", nullptr},
    {"ip", "eth_static_ip", nullptr},
    {"mask", "eth_static_mask", nullptr},
};
constexpr AnswerMember wifi_members[] = {
    {"sys_country", "system_country", nullptr},
    {"ap_iface", "ap_iface", nullptr},
    {"ap_ssid", "ap_ssid", nullptr},
    {"ap_psk", "ap_psk", nullptr},
    {"ap_mode", "ap_mode", nullptr},
    {"ap_channel", "ap_channel", nullptr},
    {"ap_country", "ap_country", nullptr},
    {"ap_ip", nullptr, ap_address},
    {"wifi_iface", "wifi_iface", nullptr},
    {"wifi_ssid", "wifi_ssid", nullptr},
    {"wifi_psk", "wifi_psk", nullptr},
    {"wifi_ip", nullptr, wifi_address},
    {"wifi_s_enabled", "wifi_static_ip_enabled", nullptr},
    {"wifi_s_addr", "wifi_static_ip", nullptr},
    {"wifi_s_mask", "wifi_static_mask", nullptr},
    {"camera_iface", "camera_iface", nullptr},
    {"camera_ssid", "camera_ssid", nullptr},
    {"camera_psk", "camera_psk", nullptr},
    {"camera_ip", nullptr, camera_address},
};
constexpr AnswerMember camera_members[] = {
    {"enabled", "internal_camera_enabled", nullptr},
    {"camera_params", "internal_camera_params", nullptr},
};
// The current mode goes between these and the two lists below.
constexpr AnswerMember display_members[] = {
    {"enabled", "display_enabled", nullptr},     {"vflip", "display_vflip", nullptr},
    {"hflip", "display_hflip", nullptr},         {"osd", "osd_enabled", nullptr},
    {"osd_borders", "osd_borders", nullptr},     {"daspect", "display_keep_aspect", nullptr},
    {"dsmooth", "display_smooth", nullptr},      {"dualhdmi", "enable_second_hdmi", nullptr},
    {"tft_dsp", "tft_display_enabled", nullptr}, {"tft_model", "tft_display_model", nullptr},
};
constexpr AnswerMember display_mode_members[] = {
    {"cea_modes", nullptr, cea_modes},
    {"dmt_modes", nullptr, dmt_modes},
};
constexpr AnswerMember streaming_members[] = {
    {"udp_enabled", "stream_udp_enabled", nullptr},
    {"udp_clients", "stream_udp_clients", nullptr},
    {"udp_blocksize", "stream_udp_blocksize", nullptr},
    {"rtsp_enabled", "rtsp_server_enabled", nullptr},
    {"rtmp_enabled", "stream_rtmp_enabled", nullptr},
    {"rtmp_url", "stream_rtmp_url", nullptr},
    {"rtmp_key", "stream_rtmp_key", nullptr},
    {"rtmp2_enabled", "stream2_rtmp_enabled", nullptr},
    {"rtmp2_url", "stream2_rtmp_url", nullptr},
    {"rtmp2_key", "stream2_rtmp_key", nullptr},
    {"srt_enabled", "stream_srt_enabled", nullptr},
    {"srt_url", "stream_srt_url", nullptr},
};
constexpr AnswerMember recording_members[] = {
    {"enabled", "recording_enabled", nullptr}, {"place", "recording_place", nullptr},
    {"free0", nullptr, free_internal},         {"free1", nullptr, free_external},
    {"gpio", "recording_gpio", nullptr},       {"gpio2", "recording_btn_gpio", nullptr},
    {"gpio3", "shot_btn_gpio", nullptr},
};
constexpr AnswerMember video_members[] = {
    {"transcoding_enabled", "transcoding_enabled", nullptr},
    {"transcoding_bitrate", "transcoding_bitrate", nullptr},
    {"resize_enabled", "resize_enabled", nullptr},
    {"resize_width", "resize_width", nullptr},
    {"resize_height", "resize_height", nullptr},
    {"audio_enabled", "audio_enabled", nullptr},
    {"audio_bitrate", "audio_bitrate", nullptr},
    {"audio_dst", "audio_dst", nullptr},
    {"autogain_enabled", "audio_autogain", nullptr},
    {"audio_volume", "audio_volume", nullptr},
};
constexpr AnswerMember rc_members[] = {
    {"enabled", "rc_enabled", nullptr},
    {"rc1_mode", "rc1_mode", nullptr},
    {"rc2_mode", "rc2_mode", nullptr},
};
constexpr AnswerMember gimbal_members[] = {
    {"move_type", "gimbal_movement_type", nullptr}, {"rc_pan", "rc_pan_smooth", nullptr},
    {"rc_tilt", "rc_tilt_smooth", nullptr},         {"rc_roll", "rc_roll_smooth", nullptr},
    {"app_pan", "app_pan_smooth", nullptr},         {"app_tilt", "app_tilt_smooth", nullptr},
    {"app_roll", "app_roll_smooth", nullptr},
};
constexpr AnswerMember automovement_members[] = {
    {"enabled", "automove_enabled", nullptr},
    {"smooth", "automove_smooth", nullptr},
    {"smooth_speed", "automove_smooth_speed", nullptr},
    {"list", "automove_list", nullptr},
};
constexpr AnswerMember zerotier_members[] = {
    {"enabled", "zerotier_enabled", nullptr}, {"autojoin", "zerotier_autojoin", nullptr},
    {"netid", "zerotier_netid", nullptr},     {"info", nullptr, zerotier_info},
    {"networks", nullptr, zerotier_networks},
};
constexpr AnswerMember system_members[] = {
    {"fs_rw", "fs_rw", nullptr},
    {"make_preview", "make_preview", nullptr},
};

static std::string setting_json(const char *key) {
    const ConfigRecord &config = config_record();
    const ConfigKey &row = *find_config_key(key);
    switch (row.kind) {
    case SettingKind::number:
        return std::to_string(config.*row.number);
    case SettingKind::byte:
    case SettingKind::flag:
        return std::to_string(config.*row.byte);
    case SettingKind::text:
        break;
    }
    return quoted(text_field(config, row));
}

static std::string members_json(std::span<const AnswerMember> members) {
    std::string json;
    for (const AnswerMember &member : members) {
        json += json.empty() ? "" : ",";
        json += quoted(member.name) + ":";
        json += member.live != nullptr ? member.live() : setting_json(member.key);
    }
    return json;
}

// Runs three commands. A second query during this time gets nothing.
static std::string display_json() {
    if (display_busy.exchange(true)) {
        return "";
    }
    const std::string mode = parse_current_mode(shell_output("tvservice -s", command_output_limit));
    fprintf(stderr, "current_mode_string: %s\n", mode.c_str());
    const std::string mode_lists = members_json(display_mode_members);
    std::string json = members_json(display_members) + "," + mode + "," + mode_lists;
    display_busy.store(false);
    return json;
}

struct AnswerSection {
    const char *name;
    std::span<const AnswerMember> members;
    bool trailing_comma; // after the last member
};

static const AnswerSection sections[] = {
    {"info", info_members, false},           {"ethernet", ethernet_members, false},
    {"wifi", wifi_members, false},           {"camera", camera_members, false},
    {"streaming", streaming_members, false}, {"recording", recording_members, false},
    {"video", video_members, false},         {"rc", rc_members, false},
    {"gimbal", gimbal_members, false},       {"automovement", automovement_members, true},
    {"zerotier", zerotier_members, true},    {"system", system_members, false},
};

static std::string section_json(const char *name) {
    if (strcmp(name, "display") == 0) {
        return display_json();
    }
    for (const AnswerSection &section : sections) {
        if (strcmp(name, section.name) == 0) {
            return members_json(section.members) + (section.trailing_comma ? "," : "");
        }
    }
    return "";
}

std::string build_config_answer(const char *section) {
    std::string answer = R"({"cmd":"config_answer",)" + section_json(section) + "}";
    answer.resize(std::min(answer.size(), config_answer_limit));
    fprintf(stderr, "config_content: %s\n", answer.c_str());
    return answer;
}
