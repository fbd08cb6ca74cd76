#include "client/setting_rows.h"

#include "client/command_text.h"

#include <charconv>

constexpr SettingType flag = SettingType::flag;
constexpr SettingType number = SettingType::number;
constexpr SettingType text = SettingType::text;

constexpr SettingField ethernet_fields[] = {
    {"eth_static_ip_enabled", "enabled", flag},
    {"eth_static_ip", "ip", text},
    {"eth_static_mask", "mask", text},
};
constexpr SettingField wlan_fields[] = {
    {"camera_iface", "camera_iface", text},
    {"camera_ssid", "camera_ssid", text},
    {"camera_psk", "camera_psk", text},
    {"wifi_iface", "wifi_iface", text},
    {"wifi_ssid", "wifi_ssid", text},
    {"wifi_psk", "wifi_psk", text},
    {"ap_iface", "ap_iface", text},
    {"ap_ssid", "ap_ssid", text},
    {"ap_psk", "ap_psk", text},
    {"ap_mode", "ap_mode", number},
    {"ap_channel", "ap_channel", number},
    {"ap_country", "ap_country", text},
    {"system_country", "sys_country", text},
    {"wifi_static_ip_enabled", "wifi_s_enabled", flag},
    {"wifi_static_ip", "wifi_s_addr", text},
    {"wifi_static_mask", "wifi_s_mask", text},
};
constexpr SettingField udp_fields[] = {
    {"stream_udp_enabled", "udp_enabled", flag},
    {"stream_udp_clients", "udp_clients", text},
    {"stream_udp_blocksize", "udp_blocksize", number},
};
constexpr SettingField rtmp_fields[] = {
    {"stream_rtmp_enabled", "rtmp_enabled", flag}, {"stream_rtmp_url", "rtmp_url", text},
    {"stream_rtmp_key", "rtmp_key", text},         {"stream2_rtmp_enabled", "rtmp2_enabled", flag},
    {"stream2_rtmp_url", "rtmp2_url", text},       {"stream2_rtmp_key", "rtmp2_key", text},
};
constexpr SettingField rtsp_fields[] = {{"rtsp_server_enabled", "rtsp_enabled", flag}};
constexpr SettingField srt_fields[] = {
    {"stream_srt_enabled", "srt_enabled", flag},
    {"stream_srt_url", "srt_url", text},
};
constexpr SettingField recording_fields[] = {
    {"recording_enabled", "enabled", flag}, {"recording_place", "place", number},
    {"recording_gpio", "gpio", number},     {"recording_btn_gpio", "gpio2", number},
    {"shot_btn_gpio", "gpio3", number},
};
constexpr SettingField rec_fields[] = {{"recording_enabled", "enabled", flag}};
constexpr SettingField transcoding_fields[] = {
    {"transcoding_enabled", "transcoding_enabled", flag},
    {"transcoding_bitrate", "transcoding_bitrate", number},
    {"resize_enabled", "resize_enabled", flag},
    {"resize_width", "resize_width", number},
    {"resize_height", "resize_height", number},
};
constexpr SettingField audio_fields[] = {
    {"audio_enabled", "audio_enabled", flag}, {"audio_bitrate", "audio_bitrate", number},
    {"audio_dst", "audio_dst", number},       {"audio_autogain", "autogain_enabled", flag},
    {"audio_volume", "audio_volume", number},
};
constexpr SettingField display_enabled[] = {{"display_enabled", "enabled", flag}};
constexpr SettingField display_hflip[] = {{"display_hflip", "hflip", flag}};
constexpr SettingField display_vflip[] = {{"display_vflip", "vflip", flag}};
constexpr SettingField display_aspect[] = {{"display_keep_aspect", "daspect", flag}};
constexpr SettingField display_smooth[] = {{"display_smooth", "dsmooth", flag}};
constexpr SettingField dual_hdmi[] = {{"enable_second_hdmi", "dualhdmi", flag}};
constexpr SettingField tft_enabled[] = {{"tft_display_enabled", "tft_dsp", flag}};
constexpr SettingField tft_model[] = {{"tft_display_model", "tft_model", number}};
constexpr SettingField osd_enabled[] = {{"osd_enabled", "osd", flag}};
constexpr SettingField osd_borders[] = {{"osd_borders", "osd_borders", flag}};
constexpr SettingField cvbs_fields[] = {
    {"standard", nullptr, text}, // PAL or NTSC
    {"aspect", nullptr, text},   // 4:3, 14:9 or 16:9
    {"scan", nullptr, text},     // P, or empty
};
constexpr SettingField hdmi_fields[] = {
    {"group", nullptr, text}, // CEA or DMT; empty: what the screen prefers
    {"mode", nullptr, text},
};
constexpr SettingField app_type_fields[] = {
    {"app_type", "app_type", number},
    {"device_name", "device_name", text},
};
constexpr SettingField internal_camera_fields[] = {
    {"internal_camera_enabled", "enabled", flag},
    {"internal_camera_params", "camera_params", text},
};
constexpr SettingField rc_fields[] = {
    {"rc_enabled", "enabled", flag},
    {"rc1_mode", "rc1_mode", text},
    {"rc2_mode", "rc2_mode", text},
};
constexpr SettingField gimbal_fields[] = {
    {"gimbal_movement_type", "move_type", number}, {"rc_pan_smooth", "rc_pan", number},
    {"rc_tilt_smooth", "rc_tilt", number},         {"rc_roll_smooth", "rc_roll", number},
    {"app_pan_smooth", "app_pan", number},         {"app_tilt_smooth", "app_tilt", number},
    {"app_roll_smooth", "app_roll", number},
};
constexpr SettingField fs_rw_fields[] = {{"fs_rw", "fs_rw", flag}};
constexpr SettingField preview_fields[] = {{"make_preview", "make_preview", flag}};
constexpr SettingField automovement_fields[] = {
    {"automove_enabled", "enabled", flag},
    {"automove_list", "list", text},
    {"automove_smooth", "smooth", flag},
    {"automove_smooth_speed", "smooth_speed", number},
};
constexpr SettingField step_fields[] = {{"step", nullptr, number}};
constexpr SettingField state_fields[] = {{"running", nullptr, flag}};
constexpr SettingField zerotier_fields[] = {
    {"zerotier_enabled", "enabled", flag},
    {"zerotier_autojoin", "autojoin", flag},
    {"zerotier_netid", "netid", text},
};
constexpr SettingField network_fields[] = {{"network", nullptr, text}};

constexpr SettingRow rows[] = {
    {.param = "ethernet", .section = "ethernet", .fields = ethernet_fields},
    {.param = "wlan", .section = "wifi", .fields = wlan_fields},
    {.param = "streaming", .sub = "udp", .section = "streaming", .fields = udp_fields},
    {.param = "streaming", .sub = "rtmp", .section = "streaming", .fields = rtmp_fields},
    {.param = "streaming", .sub = "rtsp", .section = "streaming", .fields = rtsp_fields},
    {.param = "streaming", .sub = "srt", .section = "streaming", .fields = srt_fields},
    {.param = "recording", .section = "recording", .fields = recording_fields},
    {.param = "rec", .section = "recording", .fields = rec_fields},
    {.param = "transcoding", .section = "video", .fields = transcoding_fields},
    {.param = "audio", .section = "video", .fields = audio_fields},
    {.param = "display", .sub = "enabled", .section = "display", .fields = display_enabled},
    {.param = "display", .sub = "hflip", .section = "display", .fields = display_hflip},
    {.param = "display", .sub = "vflip", .section = "display", .fields = display_vflip},
    {.param = "display", .sub = "aspect_ratio", .section = "display", .fields = display_aspect},
    {.param = "display", .sub = "smooth", .section = "display", .fields = display_smooth},
    {.param = "display", .sub = "dualhdmi", .section = "display", .fields = dual_hdmi},
    {.param = "tft_display", .sub = "enabled", .section = "display", .fields = tft_enabled},
    {.param = "tft_display", .sub = "model", .section = "display", .fields = tft_model},
    {.param = "osd", .sub = "enabled", .section = "display", .fields = osd_enabled},
    {.param = "osd", .sub = "borders", .section = "display", .fields = osd_borders},
    {.param = "cvbs", .sub = "test", .fields = cvbs_fields, .optional = 1},
    {.param = "cvbs", .sub = "testandsave", .fields = cvbs_fields, .optional = 1},
    {.param = "hdmi", .sub = "test", .fields = hdmi_fields, .optional = 2},
    {.param = "hdmi", .sub = "testandsave", .fields = hdmi_fields, .optional = 2},
    {.param = "app_type", .section = "info", .fields = app_type_fields, .ends_daemon = true},
    {.param = "internal_camera", .section = "camera", .fields = internal_camera_fields},
    {.param = "rc", .section = "rc", .fields = rc_fields},
    {.param = "gimbal", .section = "gimbal", .fields = gimbal_fields},
    {.param = "fs_rw", .section = "system", .fields = fs_rw_fields},
    {.param = "make_preview", .section = "system", .fields = preview_fields},
    {.param = "automovement",
     .sub = "params",
     .section = "automovement",
     .fields = automovement_fields},
    {.param = "automovement", .sub = "move", .fields = step_fields},
    {.param = "automovement", .sub = "movenext"},
    {.param = "automovement", .sub = "moveprev"},
    {.param = "automovement", .sub = "setstate", .fields = state_fields},
    {.param = "zerotier", .sub = "params", .section = "zerotier", .fields = zerotier_fields},
    {.param = "zerotier", .sub = "join", .fields = network_fields, .first_value = 4},
    {.param = "zerotier", .sub = "leave", .fields = network_fields, .first_value = 4},
    {.param = "zerotier", .sub = "clear"},
};

constexpr const char *sections[] = {"info",         "ethernet",  "wifi",  "camera", "display",
                                    "streaming",    "recording", "video", "rc",     "gimbal",
                                    "automovement", "zerotier",  "system"};

std::span<const SettingRow> setting_rows() {
    return rows;
}

std::span<const char *const> section_names() {
    return sections;
}

bool can_cut_link(const SettingRow &row) {
    const std::string_view param = row.param;
    return param == "ethernet" || param == "wlan" || row.ends_daemon;
}

std::string update_command(const SettingRow &row, std::span<const std::string> values) {
    TextMembers members = {{"cmd", "updateconfig"}, {"param", row.param}};
    if (row.sub != nullptr) {
        members.emplace_back("value", row.sub);
    }
    int value_number = row.first_value;
    if (value_number == 0) {
        value_number = row.sub == nullptr ? 1 : 2;
    }
    for (const std::string &value : values) {
        const std::string suffix = value_number == 1 ? "" : std::to_string(value_number);
        members.emplace_back("value" + suffix, value);
        ++value_number;
    }
    return command_text(members);
}

bool is_same_value(const SettingField &field, std::string_view sent, std::string_view reported) {
    if (field.type != SettingType::text) {
        int sent_number = 0;
        int reported_number = 0;
        std::from_chars(sent.data(), sent.data() + sent.size(), sent_number);
        std::from_chars(reported.data(), reported.data() + reported.size(), reported_number);
        return sent_number == reported_number;
    }
    const bool is_mask = std::string_view(field.key).ends_with("_mask");
    return sent == reported || (is_mask && sent.empty() && reported == "255.255.255.0");
}
