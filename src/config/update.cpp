#include "config/update.h"

#include "base/json_command.h"
#include "config/config.h"
#include "config/loader.h"
#include "config/update_board.h"
#include "config/update_display.h"
#include "config/update_movement.h"
#include "config/update_network.h"
#include "config/update_recording.h"
#include "config/update_streaming.h"

#include <cstdio>
#include <cstring>
#include <span>

// A setting that a command changes, and the member that has its value.
struct TakenSetting {
    const char *member;
    const char *key;
};

constexpr TakenSetting ethernet_settings[] = {
    {"value", "eth_static_ip_enabled"},
    {"value2", "eth_static_ip"},
    {"value3", "eth_static_mask"},
};
constexpr TakenSetting wlan_settings[] = {
    {"value", "camera_iface"},
    {"value2", "camera_ssid"},
    {"value3", "camera_psk"},
    {"value4", "wifi_iface"},
    {"value5", "wifi_ssid"},
    {"value6", "wifi_psk"},
    {"value14", "wifi_static_ip_enabled"},
    {"value15", "wifi_static_ip"},
    {"value16", "wifi_static_mask"},
    {"value7", "ap_iface"},
    {"value8", "ap_ssid"},
    {"value9", "ap_psk"},
    {"value10", "ap_mode"},
    {"value11", "ap_channel"},
    {"value12", "ap_country"},
    {"value13", "system_country"},
};
constexpr TakenSetting streaming_udp_settings[] = {
    {"value2", "stream_udp_enabled"},
    {"value3", "stream_udp_clients"},
    {"value4", "stream_udp_blocksize"},
};
constexpr TakenSetting streaming_rtmp_settings[] = {
    {"value2", "stream_rtmp_enabled"}, {"value3", "stream_rtmp_url"},
    {"value4", "stream_rtmp_key"},     {"value5", "stream2_rtmp_enabled"},
    {"value6", "stream2_rtmp_url"},    {"value7", "stream2_rtmp_key"},
};
constexpr TakenSetting streaming_rtsp_settings[] = {{"value2", "rtsp_server_enabled"}};
constexpr TakenSetting streaming_srt_settings[] = {
    {"value2", "stream_srt_enabled"},
    {"value3", "stream_srt_url"},
};
constexpr TakenSetting recording_settings[] = {
    {"value", "recording_enabled"},   {"value2", "recording_place"}, {"value3", "recording_gpio"},
    {"value4", "recording_btn_gpio"}, {"value5", "shot_btn_gpio"},
};
constexpr TakenSetting rec_settings[] = {{"value", "recording_enabled"}};
constexpr TakenSetting transcoding_settings[] = {
    {"value", "transcoding_enabled"}, {"value2", "transcoding_bitrate"},
    {"value3", "resize_enabled"},     {"value4", "resize_width"},
    {"value5", "resize_height"},
};
constexpr TakenSetting audio_settings[] = {
    {"value", "audio_enabled"},   {"value2", "audio_bitrate"}, {"value3", "audio_dst"},
    {"value4", "audio_autogain"}, {"value5", "audio_volume"},
};
constexpr TakenSetting display_enabled_settings[] = {{"value2", "display_enabled"}};
constexpr TakenSetting display_hflip_settings[] = {{"value2", "display_hflip"}};
constexpr TakenSetting display_vflip_settings[] = {{"value2", "display_vflip"}};
constexpr TakenSetting display_aspect_settings[] = {{"value2", "display_keep_aspect"}};
constexpr TakenSetting display_smooth_settings[] = {{"value2", "display_smooth"}};
constexpr TakenSetting dual_hdmi_settings[] = {{"value2", "enable_second_hdmi"}};
constexpr TakenSetting tft_enabled_settings[] = {{"value2", "tft_display_enabled"}};
constexpr TakenSetting tft_model_settings[] = {{"value2", "tft_display_model"}};
constexpr TakenSetting osd_enabled_settings[] = {{"value2", "osd_enabled"}};
constexpr TakenSetting osd_borders_settings[] = {{"value2", "osd_borders"}};
constexpr TakenSetting app_type_settings[] = {
    {"value", "app_type"},
    {"value2", "device_name"},
};
constexpr TakenSetting internal_camera_settings[] = {
    {"value", "internal_camera_enabled"},
    {"value2", "internal_camera_params"},
};
constexpr TakenSetting rc_settings[] = {
    {"value", "rc_enabled"},
    {"value2", "rc1_mode"},
    {"value3", "rc2_mode"},
};
constexpr TakenSetting gimbal_settings[] = {
    {"value", "gimbal_movement_type"}, {"value2", "rc_pan_smooth"},  {"value3", "rc_tilt_smooth"},
    {"value4", "rc_roll_smooth"},      {"value5", "app_pan_smooth"}, {"value6", "app_tilt_smooth"},
    {"value7", "app_roll_smooth"},
};
constexpr TakenSetting fs_rw_settings[] = {{"value", "fs_rw"}};
constexpr TakenSetting make_preview_settings[] = {{"value", "make_preview"}};
constexpr TakenSetting automovement_settings[] = {
    {"value2", "automove_enabled"},
    {"value3", "automove_list"},
    {"value4", "automove_smooth"},
    {"value5", "automove_smooth_speed"},
};
constexpr TakenSetting zerotier_settings[] = {
    {"value2", "zerotier_enabled"},
    {"value3", "zerotier_autojoin"},
    {"value4", "zerotier_netid"},
};

// What one "param", or one of its sub-commands, does.
struct UpdateRow {
    const char *param;
    const char *sub_command; // the required "value"; null: any
    std::span<const TakenSetting> takes;
    void (*then)(const cJSON *command);
    const char *announcement; // printed before the settings change; null: nothing
};

static const UpdateRow rows[] = {
    {"ethernet", nullptr, ethernet_settings, then_ethernet, nullptr},
    {"wlan", nullptr, wlan_settings, then_wlan, nullptr},
    {"streaming", "udp", streaming_udp_settings, then_streaming_udp, nullptr},
    {"streaming", "rtmp", streaming_rtmp_settings, then_streaming_rtmp, nullptr},
    {"streaming", "rtsp", streaming_rtsp_settings, then_streaming_rtsp, nullptr},
    {"streaming", "srt", streaming_srt_settings, then_streaming_srt, nullptr},
    {"recording", nullptr, recording_settings, then_recording, nullptr},
    {"rec", nullptr, rec_settings, then_rec, nullptr},
    {"transcoding", nullptr, transcoding_settings, then_transcoding, nullptr},
    {"audio", nullptr, audio_settings, then_audio, nullptr},
    {"display", "enabled", display_enabled_settings, then_display_enabled, nullptr},
    {"display", "hflip", display_hflip_settings, then_display_hflip, nullptr},
    {"display", "vflip", display_vflip_settings, then_display_vflip, nullptr},
    {"display", "aspect_ratio", display_aspect_settings, then_display_aspect, nullptr},
    {"display", "smooth", display_smooth_settings, then_display_smooth, nullptr},
    {"display", "dualhdmi", dual_hdmi_settings, then_dual_hdmi, nullptr},
    {"tft_display", "enabled", tft_enabled_settings, then_tft, nullptr},
    {"tft_display", "model", tft_model_settings, then_tft, nullptr},
    {"osd", "enabled", osd_enabled_settings, then_save, nullptr},
    {"osd", "borders", osd_borders_settings, then_save, nullptr},
    {"cvbs", "test", {}, then_cvbs_test, nullptr},
    {"cvbs", "testandsave", {}, then_cvbs_test_and_save, nullptr},
    {"hdmi", "test", {}, then_hdmi_test, nullptr},
    {"hdmi", "testandsave", {}, then_hdmi_test_and_save, nullptr},
    {"app_type", nullptr, app_type_settings, then_app_type, nullptr},
    {"internal_camera", nullptr, internal_camera_settings, then_internal_camera, nullptr},
    {"rc", nullptr, rc_settings, then_rc, nullptr},
    {"gimbal", nullptr, gimbal_settings, then_save, "New config for gimbal control\n"},
    {"fs_rw", nullptr, fs_rw_settings, then_fs_rw, nullptr},
    {"make_preview", nullptr, make_preview_settings, then_save, nullptr},
    {"automovement", "params", automovement_settings, then_automovement_params, nullptr},
    {"automovement", "move", {}, then_move, nullptr},
    {"automovement", "movenext", {}, then_move_next, nullptr},
    {"automovement", "moveprev", {}, then_move_previous, nullptr},
    {"automovement", "setstate", {}, then_set_movement_state, nullptr},
    {"zerotier", "params", zerotier_settings, then_zerotier_params, nullptr},
    {"zerotier", "join", {}, then_zerotier_join, nullptr},
    {"zerotier", "leave", {}, then_zerotier_leave, nullptr},
    {"zerotier", "clear", {}, then_zerotier_clear, nullptr},
};

static const UpdateRow *find_row(const char *param, const char *sub_command) {
    for (const UpdateRow &row : rows) {
        if (strcmp(param, row.param) == 0 &&
            (row.sub_command == nullptr || strcmp(sub_command, row.sub_command) == 0)) {
            return &row;
        }
    }
    return nullptr;
}

static void carry_out(const UpdateRow &row, const cJSON *command) {
    if (row.announcement != nullptr) {
        fputs(row.announcement, stderr);
    }
    for (const TakenSetting &taken : row.takes) {
        change_setting(config_record(), taken.key, member_or_empty(command, taken.member));
    }
    row.then(command);
}

void apply_config_update(const char *text) {
    fprintf(stderr, "config_update: %s\n", text);
    cJSON *command = parse_command(text);
    const char *param = require_member(command, "param");
    const UpdateRow *row = find_row(param, member_or_empty(command, "value"));
    if (row != nullptr) {
        carry_out(*row, command);
    }
    cJSON_Delete(command);
}
