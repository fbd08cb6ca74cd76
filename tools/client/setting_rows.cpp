#include "client/setting_rows.h"

#include <algorithm>
#include <array>
#include <cctype>
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
    {"scan", nullptr, text},     // P, or nothing
};
constexpr SettingField hdmi_fields[] = {
    {"group", nullptr, text}, // CEA or DMT; nothing: what the screen prefers
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

std::pair<const SettingRow *, size_t> find_setting_row(std::span<const std::string> words) {
    for (const SettingRow &row : rows) {
        if (words.empty() || words[0] != row.param) {
            continue;
        }
        if (row.sub == nullptr) {
            return {&row, 1};
        }
        if (words.size() > 1 && words[1] == row.sub) {
            return {&row, 2};
        }
    }
    return {nullptr, 0};
}

std::string usage_line(const SettingRow &row) {
    std::string line = row.param;
    line += row.sub == nullptr ? "" : std::string(" ") + row.sub;
    const size_t needed = row.fields.size() - row.optional;
    for (size_t i = 0; i < row.fields.size(); ++i) {
        const bool is_flag = row.fields[i].type == SettingType::flag;
        const std::string field = std::string(row.fields[i].key) + (is_flag ? ":0|1" : "");
        line += i < needed ? " <" + field + ">" : " [" + field + "]";
    }
    return line;
}

// The field of that name; the number of fields when there is none.
static size_t field_named(const SettingRow &row, std::string_view name) {
    const auto found = std::find_if(row.fields.begin(), row.fields.end(), [&](const auto &field) {
        return name == field.key || (field.member != nullptr && name == field.member);
    });
    return static_cast<size_t>(found - row.fields.begin());
}

// Splits NAME=VALUE when NAME is a field's; else the field is the number of fields.
static std::pair<size_t, std::string> named_value(const SettingRow &row, std::string_view word) {
    const size_t equals = word.find('=');
    if (equals == std::string_view::npos) {
        return {row.fields.size(), ""};
    }
    return {field_named(row, word.substr(0, equals)), std::string(word.substr(equals + 1))};
}

static bool is_number(std::string_view value) {
    int parsed = 0;
    const auto result = std::from_chars(value.data(), value.data() + value.size(), parsed);
    return result.ec == std::errc() && result.ptr == value.data() + value.size();
}

// Flags may be told in words. False: the field cannot have this value.
static bool accept_value(const SettingField &field, std::string &value) {
    constexpr std::array on = {"1", "on", "yes"};
    constexpr std::array off = {"0", "off", "no"};
    if (field.type == SettingType::flag) {
        const bool is_on = std::find(on.begin(), on.end(), value) != on.end();
        const bool is_off = std::find(off.begin(), off.end(), value) != off.end();
        value = is_on ? "1" : "0";
        return is_on || is_off;
    }
    return field.type == SettingType::text || is_number(value);
}

// Is the word meant as NAME=VALUE, whatever the name?
static bool is_assignment(std::string_view word) {
    const size_t equals = word.find('=');
    return equals != std::string_view::npos && equals > 0 &&
           std::all_of(word.begin(), word.begin() + static_cast<std::ptrdiff_t>(equals),
                       [](unsigned char c) { return isalnum(c) != 0 || c == '_'; });
}

// "its names: stream_srt_enabled (srt_enabled), stream_srt_url (srt_url)".
static std::string name_list(const SettingRow &row) {
    std::string list;
    for (const SettingField &field : row.fields) {
        list += (list.empty() ? "its names: " : ", ") + std::string(field.key);
        if (field.member != nullptr && std::string_view(field.member) != field.key) {
            list += " (" + std::string(field.member) + ")";
        }
    }
    return list.empty() ? "it takes no values" : list;
}

static std::string no_name_error(const SettingRow &row, const std::string &word) {
    return "\"" + word + "\" is no NAME=VALUE of this param; " + name_list(row);
}

static std::string usage_error(const SettingRow &row, const std::string &what) {
    return what + "; usage: beaconctl set " + usage_line(row);
}

static GivenValues read_named(const SettingRow &row, std::span<const std::string> words) {
    GivenValues given{std::vector<std::optional<std::string>>(row.fields.size()), ""};
    for (const std::string &word : words) {
        const auto [field, value] = named_value(row, word);
        if (field == row.fields.size()) {
            given.error = no_name_error(row, word);
            return given;
        }
        given.values[field] = value;
    }
    return given;
}

static GivenValues read_in_order(const SettingRow &row, std::span<const std::string> words) {
    GivenValues given{std::vector<std::optional<std::string>>(row.fields.size()), ""};
    const size_t most = row.fields.size();
    const bool is_count_wrong = words.size() > most || words.size() < most - row.optional;
    const auto assignment = std::find_if(words.begin(), words.end(), is_assignment);
    if (is_count_wrong && assignment != words.end()) {
        given.error = no_name_error(row, *assignment);
        return given;
    }
    if (is_count_wrong) {
        given.error = usage_error(row, std::to_string(words.size()) + " values given where " +
                                           std::to_string(most) + " are taken" +
                                           (most > 1 ? " (or NAME=VALUE for some)" : ""));
        return given;
    }
    std::copy(words.begin(), words.end(), given.values.begin());
    return given;
}

GivenValues read_values(const SettingRow &row, std::span<const std::string> words) {
    const bool is_named = std::any_of(words.begin(), words.end(), [&](const std::string &word) {
        return named_value(row, word).first < row.fields.size();
    });
    GivenValues given = is_named ? read_named(row, words) : read_in_order(row, words);
    for (size_t i = 0; given.error.empty() && i < given.values.size(); ++i) {
        auto &value = given.values[i];
        const std::string said = value.value_or("");
        if (value && !accept_value(row.fields[i], *value)) {
            const bool is_flag = row.fields[i].type == SettingType::flag;
            if (!is_named && is_assignment(said)) {
                given.error = no_name_error(row, said);
                break;
            }
            given.error = std::string(row.fields[i].key) + " takes " +
                          (is_flag ? "0 or 1" : "a number") + ", not \"" + said + "\"";
        }
    }
    return given;
}

std::vector<std::pair<std::string, std::string>>
command_members(const SettingRow &row, std::span<const std::string> values) {
    std::vector<std::pair<std::string, std::string>> members = {{"param", row.param}};
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
    return members;
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
