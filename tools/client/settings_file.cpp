#include "client/settings_file.h"

#include "client/setting_limits.h"
#include "client/value_check.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <map>

using enum StoredKind;

constexpr size_t longest_line = 9999;

constexpr StoredKey keys[] = {
    {"app_type", byte},
    {"device_name", text, 39, true},
    {"fs_rw", flag},
    {"make_preview", flag},
    {"eth_static_ip_enabled", byte},
    {"eth_static_ip", text, 19},
    {"eth_static_mask", text, 19},
    {"system_country", text, 4, true},
    {"ap_iface", text, 9, true},
    {"ap_ssid", text, 39, true},
    {"ap_psk", text, 39, true},
    {"ap_mode", number},
    {"ap_channel", number},
    {"ap_country", text, 4, true},
    {"wifi_iface", text, 9, true},
    {"wifi_ssid", text, 39, true},
    {"wifi_psk", text, 39, true},
    {"wifi_static_ip_enabled", byte},
    {"wifi_static_ip", text, 19},
    {"wifi_static_mask", text, 19},
    {"camera_iface", text, 9, true},
    {"camera_ssid", text, 39, true},
    {"camera_psk", text, 39, true},
    {"internal_camera_enabled", number},
    {"internal_camera_params", text, 99, true},
    {"display_enabled", number},
    {"enable_second_hdmi", number},
    {"display_hflip", number},
    {"display_vflip", number},
    {"display_keep_aspect", number},
    {"display_smooth", number},
    {"osd_enabled", number},
    {"osd_borders", number},
    {"tft_display_enabled", number},
    {"tft_display_model", number},
    {"stream_udp_enabled", number},
    {"stream_udp_clients", text, 999},
    {"stream_udp_blocksize", number},
    {"rtsp_server_enabled", number},
    {"stream_rtmp_enabled", number},
    {"stream_rtmp_url", text, 999, true},
    {"stream_rtmp_key", text, 999, true},
    {"stream2_rtmp_enabled", number},
    {"stream2_rtmp_url", text, 999, true},
    {"stream2_rtmp_key", text, 999, true},
    {"stream_srt_enabled", number},
    {"stream_srt_url", text, 999},
    {"recording_enabled", number},
    {"recording_place", byte},
    {"recording_gpio", byte},
    {"recording_btn_gpio", byte},
    {"shot_btn_gpio", byte},
    {"transcoding_enabled", number},
    {"transcoding_bitrate", number},
    {"resize_enabled", number},
    {"resize_width", number},
    {"resize_height", number},
    {"audio_enabled", number},
    {"audio_bitrate", number},
    {"audio_dst", number},
    {"audio_autogain", number},
    {"audio_volume", number},
    {"rc_enabled", byte},
    {"rc1_mode", text, 29},
    {"rc2_mode", text, 29},
    {"rc1_channels", text, 9999},
    {"rc2_channels", text, 9999},
    {"gimbal_movement_type", number},
    {"rc_pan_smooth", number},
    {"rc_tilt_smooth", number},
    {"rc_roll_smooth", number},
    {"app_pan_smooth", number},
    {"app_tilt_smooth", number},
    {"app_roll_smooth", number},
    {"automove_enabled", number},
    {"automove_smooth", number},
    {"automove_smooth_speed", number},
    {"automove_list", text, 1199, true},
    {"zerotier_enabled", number},
    {"zerotier_autojoin", number},
    {"zerotier_netid", text, 39},
};

std::span<const StoredKey> stored_keys() {
    return keys;
}

static std::string_view trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\r\v\f";
    const size_t first = text.find_first_not_of(blanks);
    return first == text.npos ? "" : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// Cuts the comment that begins with ; after a blank.
static std::string_view without_comment(std::string_view text) {
    for (size_t i = 1; i < text.size(); ++i) {
        if (text[i] == ';' && (text[i - 1] == ' ' || text[i - 1] == '\t')) {
            return trimmed(text.substr(0, i));
        }
    }
    return text.starts_with(';') ? "" : text;
}

static std::string quoted(std::string_view text) {
    constexpr size_t enough = 60;
    return "\"" + std::string(text.substr(0, enough)) + (text.size() > enough ? "..." : "") + "\"";
}

// What the daemon reads: the number at the beginning, or 0.
static std::string number_remark(const StoredKey &row, std::string_view value) {
    int64_t number = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
    const std::string what = std::string(row.key) + ": ";
    if (value.empty() || error == std::errc::invalid_argument) {
        return what + quoted(value) + " is no number, and is read as 0";
    }
    if (end != value.data() + value.size()) {
        return what + quoted(value) + " is read as " + std::to_string(number);
    }
    if (error != std::errc() || number < INT32_MIN || number > INT32_MAX) {
        return what + quoted(value) + " is out of range";
    }
    if (row.kind == byte && (number < 0 || number > 255)) {
        return what + quoted(value) + " is read as " + std::to_string(static_cast<uint8_t>(number));
    }
    return "";
}

static std::string without_quotes(std::string_view text) {
    std::string left(text);
    left.erase(std::remove(left.begin(), left.end(), '"'), left.end());
    return left;
}

static std::string text_remark(const StoredKey &row, std::string_view value) {
    const std::string meant = row.quotes_removed ? without_quotes(value) : std::string(value);
    const std::string_view kept = value.substr(0, row.size);
    const std::string read = row.quotes_removed ? without_quotes(kept) : std::string(kept);
    return read == meant ? ""
                         : std::string(row.key) + ": " + quoted(meant) + " is cut to " +
                               std::to_string(read.size()) + " bytes";
}

// Is it a value that the setting can do anything with?
static std::string sense_remark(const StoredKey &row, std::string_view value) {
    const SettingLimit *limit = setting_limit(row.key);
    const std::string read = row.quotes_removed ? without_quotes(value) : std::string(value);
    return limit == nullptr || is_allowed(*limit, read)
               ? ""
               : std::string(row.key) + " takes " + allowed_values(*limit) + ", not " +
                     quoted(read);
}

static std::string value_remark(const StoredKey &row, std::string_view whole) {
    const std::string_view value = without_comment(whole);
    std::string remark = row.kind == text ? text_remark(row, value) : number_remark(row, value);
    if (remark.empty() && row.kind == text && value != whole &&
        std::count(value.begin(), value.end(), '"') % 2 != 0) {
        remark = std::string(row.key) + ": from \" ;\" on it is read as a comment";
    }
    return remark.empty() ? sense_remark(row, value) : remark;
}

namespace {
struct Reading {
    std::vector<FileRemark> remarks;
    std::map<std::string, size_t, std::less<>> seen; // key -> its line
    bool is_in_section = false;
};
} // namespace

static void read_setting(Reading &reading, size_t number, std::string_view line) {
    const size_t separator = line.find_first_of("=:");
    if (separator == line.npos) {
        reading.remarks.push_back({number, quoted(line) + " is no setting", ""});
        return;
    }
    const std::string key(trimmed(line.substr(0, separator)));
    const auto *row = std::find_if(std::begin(keys), std::end(keys),
                                   [&](const StoredKey &each) { return key == each.key; });
    if (reading.is_in_section) {
        reading.remarks.push_back({number, key + " is below a [section], and is not read", ""});
    } else if (row == std::end(keys)) {
        reading.remarks.push_back({number, "there is no setting " + quoted(key), key});
    } else {
        const auto [earlier, is_new] = reading.seen.emplace(key, number);
        if (!is_new) {
            reading.remarks.push_back(
                {number,
                 key + " was set in line " + std::to_string(earlier->second) + "; this one counts",
                 ""});
        }
        const std::string remark = value_remark(*row, trimmed(line.substr(separator + 1)));
        if (!remark.empty()) {
            reading.remarks.push_back({number, remark, ""});
        }
    }
}

static void read_line(Reading &reading, size_t number, std::string_view whole) {
    const std::string_view line = trimmed(whole);
    if (whole.size() > longest_line) {
        reading.remarks.push_back({number,
                                   "the line is longer than " + std::to_string(longest_line) +
                                       " bytes: the rest is read as another line",
                                   ""});
    }
    if (line.empty() || line[0] == ';' || line[0] == '#') {
        return;
    }
    if (line[0] == '[') {
        reading.is_in_section = true;
        return;
    }
    read_setting(reading, number, line);
}

std::vector<FileRemark> check_settings_file(std::string_view text) {
    constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";
    text.remove_prefix(text.starts_with(byte_order_mark) ? byte_order_mark.size() : 0);
    Reading reading;
    size_t number = 0;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        read_line(reading, ++number, text.substr(at, end - at));
        at = end + 1;
    }
    std::string missing;
    for (const StoredKey &row : keys) {
        if (!reading.seen.contains(row.key)) {
            missing += (missing.empty() ? "" : ", ") + std::string(row.key);
        }
    }
    if (!missing.empty()) {
        reading.remarks.push_back({0, "not set, so 0 or empty: " + missing, ""});
    }
    return reading.remarks;
}
