#include "client/value_check.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>
#include <strings.h>
#include <vector>

template <typename Number>
static std::optional<Number> read_number(std::string_view text) {
    Number number = 0;
    const char *end = text.data() + text.size();
    const auto [parsed_to, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && parsed_to == end ? std::optional(number) : std::nullopt;
}

static bool is_between(std::string_view text, long least, long most) {
    const auto number = read_number<long>(text);
    return number && *number >= least && *number <= most;
}

static std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    for (size_t at = 0; at <= text.size();) {
        const size_t end = std::min(text.find(separator, at), text.size());
        parts.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return parts;
}

// Four numbers of digits only, without zeros in front, which some programs take for octal.
static std::optional<uint32_t> read_address(std::string_view text) {
    const auto parts = split(text, '.');
    uint32_t address = 0;
    for (const std::string_view part : parts) {
        const auto number = read_number<uint8_t>(part);
        if (!number || (part.size() > 1 && part[0] == '0')) {
            return std::nullopt;
        }
        address = address << 8U | *number;
    }
    return parts.size() == 4 ? std::optional(address) : std::nullopt;
}

// Not the address of a network as such, of all hosts, of this one, or of a group.
static bool is_host_address(std::string_view text) {
    const uint32_t first = read_address(text).value_or(0) >> 24U;
    return first > 0 && first < 224 && first != 127;
}

static bool is_mask(std::string_view text) {
    const uint32_t mask = read_address(text).value_or(0);
    return mask != 0 && std::countl_one(mask) == std::popcount(mask);
}

static bool is_channel_of(std::string_view text, int band) {
    const int channel = read_number<int>(text).value_or(0);
    if (band == 2) {
        return channel >= 1 && channel <= 14;
    }
    const bool is_low = (channel >= 36 && channel <= 64) || (channel >= 100 && channel <= 144);
    return (is_low && channel % 4 == 0) || (channel >= 149 && channel <= 177 && channel % 4 == 1);
}

// What the settings file can hold: a quote would be lost there, the rest would cut the value.
static bool is_storable(std::string_view text) {
    for (size_t i = 0; i < text.size(); ++i) {
        const auto code = static_cast<unsigned char>(text[i]);
        const bool is_comment = text[i] == ';' && i > 0 && text[i - 1] == ' ';
        if (code < 0x20 || code == 0x7F || text[i] == '"' || is_comment) {
            return false;
        }
    }
    return true;
}

static bool is_text(const SettingLimit &limit, std::string_view text) {
    const auto size = static_cast<long>(text.size());
    return text.empty() || (size >= limit.least && size <= limit.most && is_storable(text));
}

static bool is_word(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](unsigned char c) {
        return isalnum(c) != 0 || c == '_' || c == '.' || c == '-';
    });
}

static bool is_url(const std::string &scheme, std::string_view text) {
    const std::string begin = scheme + "://";
    return text.starts_with(begin) && text.size() > begin.size() && text.find(' ') == text.npos;
}

static bool all_are(std::string_view text, int (*is_kind)(int)) {
    return std::all_of(text.begin(), text.end(), [&](unsigned char c) { return is_kind(c) != 0; });
}

static bool is_receiver_list(std::string_view text) {
    const auto items = split(text, ',');
    return items.size() <= 10 && std::all_of(items.begin(), items.end(), [](std::string_view item) {
               item.remove_prefix(std::min(item.find_first_not_of(' '), item.size()));
               const size_t colon = std::min(item.find(':'), item.size());
               return read_address(item.substr(0, colon)) && colon < item.size() &&
                      is_between(item.substr(colon + 1), 1, 65535);
           });
}

struct Range {
    double least, most;
};

// A movement's fields; any may be empty.
static bool is_movement(std::string_view text) {
    constexpr Range angle = {-360, 360};
    constexpr std::array<Range, 11> ranges = {{angle,
                                               angle,
                                               angle,
                                               {1, 8},
                                               {-3, 3},
                                               {0, 1},
                                               {0, 1},
                                               {0, 86400},
                                               {0, 1},
                                               {0, 100},
                                               {0, 1}}};
    const auto fields = split(text, ',');
    if (fields.size() < 10 || fields.size() > ranges.size()) {
        return false;
    }
    for (size_t i = 0; i < fields.size(); ++i) {
        const auto number = read_number<double>(fields[i]);
        const bool is_in_range = number && *number >= ranges[i].least && *number <= ranges[i].most;
        if (!fields[i].empty() && !is_in_range) {
            return false;
        }
    }
    return true;
}

static bool is_movement_list(std::string_view text) {
    text.remove_suffix(text.ends_with(';') ? 1 : 0);
    const auto list = split(text, ';');
    return list.size() <= 20 && std::all_of(list.begin(), list.end(), is_movement);
}

static bool is_choice(const SettingLimit &limit, std::string_view value) {
    return std::any_of(limit.choices.begin(), limit.choices.end(),
                       [&](const SettingChoice &each) { return value == each.value; });
}

// A value of a kind that may be empty, and is not.
static bool is_filled_in_rightly(const SettingLimit &limit, const std::string &value) {
    switch (limit.kind) {
    case ValueKind::word:
        return is_word(value);
    case ValueKind::url:
        return is_url(limit.scheme, value) || (allows_rtmps(limit) && is_url("rtmps", value));
    case ValueKind::address:
        return is_host_address(value);
    case ValueKind::mask:
        return is_mask(value);
    case ValueKind::country:
        return value.size() == 2 && all_are(value, isupper);
    case ValueKind::network_id:
        return value.size() == 16 && all_are(value, isxdigit);
    case ValueKind::receivers:
        return is_receiver_list(value);
    case ValueKind::movements:
        return is_movement_list(value);
    default:
        return true;
    }
}

std::string value_of_word(const SettingLimit &limit, const std::string &word) {
    if (limit.kind == ValueKind::flag) {
        const bool is_on = word == "on" || word == "yes";
        const bool is_off = word == "off" || word == "no";
        return is_on ? "1" : is_off ? "0" : word;
    }
    std::string value = word;
    if (limit.kind == ValueKind::country) {
        std::transform(word.begin(), word.end(), value.begin(),
                       [](unsigned char c) { return static_cast<char>(toupper(c)); });
    }
    for (const SettingChoice &each : limit.choices) {
        if (strcasecmp(word.c_str(), each.name) == 0) {
            return each.value;
        }
    }
    return value;
}

bool is_allowed(const SettingLimit &limit, const std::string &value) {
    switch (limit.kind) {
    case ValueKind::flag:
        return value == "0" || value == "1";
    case ValueKind::number:
        return is_between(value, limit.least, limit.most);
    case ValueKind::choice:
        return is_choice(limit, value);
    case ValueKind::channel:
        return value == "0" || is_channel_of(value, 2) || is_channel_of(value, 5);
    default: {
        const bool is_long_enough = limit.most == 0 || is_text(limit, value);
        return value.empty() || (is_long_enough && is_filled_in_rightly(limit, value));
    }
    }
}

// The row's value of that key; nothing if it has no such field.
static std::optional<std::string>
value_in(const SettingRow &row, std::span<const std::string> values, std::string_view key) {
    for (size_t i = 0; i < row.fields.size(); ++i) {
        if (key == row.fields[i].key) {
            return values[i];
        }
    }
    return std::nullopt;
}

// What a setting that is switched on cannot do without: the key of the switch and of the need.
struct Need {
    const char *with, *without, *empty;
};

static std::vector<ValueConflict> unmet_needs(const SettingRow &row,
                                              std::span<const std::string> values) {
    constexpr std::array needs = {
        Need{"eth_static_ip_enabled", "eth_static_ip", ""},
        Need{"wifi_static_ip_enabled", "wifi_static_ip", ""},
        Need{"stream_udp_enabled", "stream_udp_clients", ""},
        Need{"stream_udp_enabled", "stream_udp_blocksize", "0"},
        Need{"stream_rtmp_enabled", "stream_rtmp_url", ""},
        Need{"stream2_rtmp_enabled", "stream2_rtmp_url", ""},
        Need{"stream_srt_enabled", "stream_srt_url", ""},
        Need{"ap_iface", "ap_ssid", ""},
        Need{"ap_iface", "ap_mode", "0"},
        Need{"ap_iface", "ap_channel", "0"},
        Need{"wifi_iface", "wifi_ssid", ""},
        Need{"camera_iface", "camera_ssid", ""},
    };
    std::vector<ValueConflict> found;
    for (const Need &need : needs) {
        const std::string with = value_in(row, values, need.with).value_or("0");
        if (!with.empty() && with != "0" && value_in(row, values, need.without) == need.empty) {
            found.push_back({need.with, need.without,
                             std::string(need.with) + "=" + with + " needs " + need.without});
        }
    }
    return found;
}

std::vector<ValueConflict> conflicts_in(const SettingRow &row,
                                        std::span<const std::string> values) {
    std::vector<ValueConflict> found = unmet_needs(row, values);
    const std::string band = value_in(row, values, "ap_mode").value_or("");
    const std::string wanted = value_in(row, values, "ap_channel").value_or("0");
    if ((band == "2" || band == "5") && wanted != "0" && !is_channel_of(wanted, band[0] - '0')) {
        found.push_back({"ap_mode", "ap_channel",
                         "ap_channel " + wanted + " is not a channel of " +
                             (band == "2" ? "2.4 GHz (1 to 14)" : "5 GHz (36 to 177)")});
    }
    const auto group = value_in(row, values, "group");
    const auto mode = value_in(row, values, "mode");
    if (group && mode && group->empty() != mode->empty()) {
        found.push_back({"group", "mode", "group and mode are given together, or neither"});
    }
    return found;
}
