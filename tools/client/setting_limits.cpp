#include "client/setting_limits.h"

#include <algorithm>

using enum ValueKind;

constexpr SettingChoice app_types[] = {
    {"0", "osmo", "DJI Osmo/Osmo+/Osmo Pro/Osmo RAW wireless"},
    {"1", "osmo-wired", "DJI Osmo Pro/RAW with Wired video adapter"},
    {"2", "zenmuse", "DJI Zenmuse"},
    {"3", "pocket-usb", "DJI Osmo Pocket USB"},
    {"4", "pocket-wireless", "DJI Osmo Pocket Wireless"},
    {"5", "action", "DJI Osmo Action Wireless"},
    {"6", "gopro", "GoPro Wireless"},
    {"7", "yi", "Xiaomi Yi Wireless"},
    {"8", "drone", "Phantom4, Mavic, etc"},
    {"9", "board", "Twinmoor / Raspberry Pi"},
    {"10", "evo", "Insta360 EVO Wireless connection"},
    {"11", "oculus", "Oculus Go/Quest"},
    {"12", "tail", "OBSBOT Tail"},
    {"13", "rtsp", "RTSP/ONVIF camera"},
    {"14", "pocket2-usb", "DJI Pocket 2 USB"},
    {"15", "pocket2-wireless", "DJI Pocket 2 Wireless"},
};
constexpr SettingChoice interfaces[] = {
    {"int", "internal", "internal Wi-Fi"},
    {"ext", "external", "external USB Wi-Fi"},
    {"", "none", "none"},
};
constexpr SettingChoice bands[] = {
    {"2", "2.4GHz", "2.4 GHz"},
    {"5", "5GHz", "5 GHz"},
    {"0", "none", "not set"},
};
constexpr SettingChoice tft_models[] = {
    {"0", "none", "none"},
    {"1", "waveshare-2", "Waveshare 2 inch"},
    {"2", "waveshare-3.5a", "Waveshare 3.5 inch A"},
    {"3", "waveshare-3.5b", "Waveshare 3.5 inch B"},
};
constexpr SettingChoice places[] = {
    {"0", "auto", "automatic"},
    {"1", "internal", "internal (microSD)"},
    {"2", "external", "external (USB flash drive)"},
};
constexpr SettingChoice audio_outputs[] = {
    {"0", "none", "none"},
    {"1", "hdmi", "HDMI"},
    {"2", "tv-out", "TV-out"},
};
constexpr SettingChoice receiver_modes[] = {
    {"sbus", "sbus", "SBUS"},
    {"ibus", "ibus", "iBUS"},
    {"crsf", "crsf", "CRSF"},
    {"ppm", "ppm", "PPM"},
};
constexpr SettingChoice movement_types[] = {
    {"0", "relative", "relative: values are a speed"},
    {"1", "absolute", "absolute: values are a position"},
};
constexpr SettingChoice standards[] = {{"PAL", "pal", "PAL"}, {"NTSC", "ntsc", "NTSC"}};
constexpr SettingChoice aspects[] = {
    {"4:3", "4:3", "4:3"}, {"14:9", "14:9", "14:9"}, {"16:9", "16:9", "16:9"}};
constexpr SettingChoice scans[] = {{"P", "progressive", "progressive"},
                                   {"", "interlaced", "interlaced"}};
constexpr SettingChoice groups[] = {
    {"CEA", "cea", "CEA: television modes"},
    {"DMT", "dmt", "DMT: monitor modes"},
    {"", "preferred", "what the screen prefers"},
};

// The daemon reads a text of N bytes; in the file, an opening quote takes one of them.
constexpr long name_size = 38;
constexpr long ssid_size = 32;   // of any Wi-Fi network
constexpr long shortest_psk = 8; // of any Wi-Fi network
constexpr long url_size = 998;
constexpr long last_pin = 53;
constexpr long smoothest = 1000;

constexpr SettingLimit limits[] = {
    {"app_type", choice, "What the board carries; the daemon restarts", 0, 0, app_types},
    {"device_name", text, "The name that clients show", 1, name_size},
    {"fs_rw", flag, "Keep the file systems writable; off takes effect when the board restarts"},
    {"make_preview", flag, "Make preview pictures of recordings"},
    {"eth_static_ip_enabled", flag, "Wired network: 1 static address, 0 DHCP"},
    {"eth_static_ip", address, "Wired network: the static address"},
    {"eth_static_mask", mask, "Wired network: its mask; empty means 255.255.255.0"},
    {"system_country", country, "Country whose Wi-Fi rules apply"},
    {"ap_iface", choice, "Wi-Fi interface of the access point", 0, 0, interfaces},
    {"ap_ssid", text, "Name of the access point", 1, ssid_size},
    {.key = "ap_psk",
     .kind = text,
     .help = "Pass phrase of the access point",
     .least = shortest_psk,
     .most = name_size,
     .is_secret = true},
    {"ap_mode", choice, "Band of the access point", 0, 0, bands},
    {"ap_channel", channel, "Channel of the access point, in its band"},
    {"ap_country", country, "Country code that the access point announces"},
    {"wifi_iface", choice, "Wi-Fi interface that joins a network", 0, 0, interfaces},
    {"wifi_ssid", text, "Name of the network to join", 1, ssid_size},
    {.key = "wifi_psk",
     .kind = text,
     .help = "Pass phrase of the network to join",
     .least = shortest_psk,
     .most = name_size,
     .is_secret = true},
    {"wifi_static_ip_enabled", flag, "Network to join: 1 static address, 0 DHCP"},
    {"wifi_static_ip", address, "Network to join: the static address"},
    {"wifi_static_mask", mask, "Network to join: its mask; empty means 255.255.255.0"},
    {"camera_iface", choice, "Wi-Fi interface that joins the camera's network", 0, 0, interfaces},
    {"camera_ssid", text, "Name of the camera's network", 1, ssid_size},
    {.key = "camera_psk",
     .kind = text,
     .help = "Pass phrase of the camera's network",
     .least = shortest_psk,
     .most = name_size,
     .is_secret = true},
    {"internal_camera_enabled", flag, "Capture the board's own camera"},
    {"internal_camera_params", text, "Options of the capture program, passed to a shell", 1, 98},
    {"display_enabled", flag, "Show the picture on the HDMI display"},
    {"enable_second_hdmi", flag, "Use both HDMI outputs (Raspberry Pi 4)"},
    {"display_hflip", flag, "Mirror the picture left to right"},
    {"display_vflip", flag, "Turn the picture upside down"},
    {"display_keep_aspect", flag, "Keep the picture's aspect ratio"},
    {"display_smooth", flag, "Try to show the picture smoothly"},
    {"osd_enabled", flag, "Show the status over the picture"},
    {"osd_borders", flag, "Show borders over the picture"},
    {"tft_display_enabled", flag, "Use a small TFT display"},
    {"tft_display_model", choice, "Which TFT display", 0, 0, tft_models},
    {"stream_udp_enabled", flag, "Send raw video to the receivers of the list"},
    {"stream_udp_clients", receivers, "Receivers of raw video", 1, 999},
    {"stream_udp_blocksize", number, "Bytes in a datagram of raw video; with 0 nothing is sent", 0,
     65507},
    {"rtsp_server_enabled", flag, "Run the RTSP server"},
    {"stream_rtmp_enabled", flag, "Send video to the first RTMP server"},
    {"stream_rtmp_url", url, "Address of the first RTMP server", 1, url_size, {}, "rtmp"},
    {"stream_rtmp_key", text, "Stream key for the first RTMP server", 1, url_size, {}, "", true},
    {"stream2_rtmp_enabled", flag, "Send video to the second RTMP server"},
    {"stream2_rtmp_url", url, "Address of the second RTMP server", 1, url_size, {}, "rtmp"},
    {"stream2_rtmp_key", text, "Stream key for the second RTMP server", 1, url_size, {}, "", true},
    {"stream_srt_enabled", flag, "Send video over SRT"},
    {"stream_srt_url", url, "Address for SRT", 1, 999, {}, "srt"},
    {"recording_enabled", flag, "Record on the board"},
    {"recording_place", choice, "Where recordings are stored", 0, 0, places},
    {"recording_gpio", number, "GPIO that records while it is low; 0: none", 0, last_pin},
    {"recording_btn_gpio", number, "GPIO of the recording button; 0: none", 0, last_pin},
    {"shot_btn_gpio", number, "GPIO of the photo button; 0: none", 0, last_pin},
    {"transcoding_enabled", flag, "Send the transcoder's picture instead of the source's"},
    {"transcoding_bitrate", number, "Bit rate of the transcoder", 0, 100000000},
    {"resize_enabled", flag, "The transcoder resizes the picture"},
    {"resize_width", number, "Width in pixels after resizing", 0, 4096},
    {"resize_height", number, "Height in pixels after resizing", 0, 4096},
    {"audio_enabled", flag, "Capture and send sound"},
    {"audio_bitrate", number, "Bit rate of the sound", 0, 1000000},
    {"audio_dst", choice, "Where sound is played", 0, 0, audio_outputs},
    {"audio_autogain", flag, "The gain follows the level"},
    {"audio_volume", number, "Capture volume", 0, 65535},
    {"rc_enabled", flag, "Read radio-control receivers"},
    {"rc1_mode", word, "Protocol of receiver 1", 1, 29, receiver_modes},
    {"rc2_mode", word, "Protocol of receiver 2", 1, 29, receiver_modes},
    {"gimbal_movement_type", choice, "What values for the gimbal mean", 0, 0, movement_types},
    {"rc_pan_smooth", number, "Smoothing of the pan stick; 0: none", 0, smoothest},
    {"rc_tilt_smooth", number, "Smoothing of the tilt stick; 0: none", 0, smoothest},
    {"rc_roll_smooth", number, "Smoothing of the roll stick; 0: none", 0, smoothest},
    {"app_pan_smooth", number, "Smoothing of pan from clients; 0: none", 0, smoothest},
    {"app_tilt_smooth", number, "Smoothing of tilt from clients; 0: none", 0, smoothest},
    {"app_roll_smooth", number, "Smoothing of roll from clients; 0: none", 0, smoothest},
    {"automove_enabled", flag, "Play the movement list"},
    {"automove_smooth", flag, "1: the daemon moves the gimbal smoothly, 0: positions are sent"},
    {"automove_smooth_speed", number, "Speed of smooth movement, 6 is the fastest", 0, 6},
    {"automove_list", movements, "The movements", 1, 1198},
    {"zerotier_enabled", flag, "Run the virtual network"},
    {"zerotier_autojoin", flag, "Join the virtual network at start"},
    {"zerotier_netid", network_id, "Identifier of the virtual network"},
    // Values of commands that are not stored.
    {"standard", choice, "Standard of the TV-out", 0, 0, standards},
    {"aspect", choice, "Aspect ratio of the TV-out", 0, 0, aspects},
    {"scan", choice, "Scan of the TV-out", 0, 0, scans},
    {"group", choice, "Group of HDMI modes", 0, 0, groups},
    {"mode", word, "Number of the HDMI mode; empty with no group", 1, 3},
    {"step", number, "Step of the movement list, counted from 0", 0, 19},
    {"running", flag, "Play the movement list, without saving that"},
    {"network", network_id, "Identifier of the virtual network"},
};

std::span<const SettingLimit> setting_limits() {
    return limits;
}

const SettingLimit *setting_limit(std::string_view key) {
    const auto *found = std::find_if(std::begin(limits), std::end(limits),
                                     [&](const SettingLimit &limit) { return key == limit.key; });
    return found == std::end(limits) ? nullptr : found;
}

// "0 (auto), 1 (internal) or 2 (external)". An empty value is "" in quotes.
static std::string choice_list(std::span<const SettingChoice> choices) {
    std::string list;
    for (size_t i = 0; i < choices.size(); ++i) {
        const std::string value = choices[i].value;
        const bool is_last = i + 1 == choices.size();
        list += i == 0 ? "" : is_last ? " or " : ", ";
        list += value.empty() ? "\"\"" : value;
        list += value == choices[i].name ? "" : " (" + std::string(choices[i].name) + ")";
    }
    return list;
}

static std::string range_text(const SettingLimit &limit, const char *unit) {
    const std::string range = std::to_string(limit.least) + " to " + std::to_string(limit.most);
    return (limit.least <= 1 ? "at most " + std::to_string(limit.most) : range) + unit;
}

bool allows_rtmps(const SettingLimit &limit) {
    return std::string_view(limit.scheme) == "rtmp";
}

std::string allowed_values(const SettingLimit &limit) {
    switch (limit.kind) {
    case flag:
        return "0 or 1";
    case number:
        return "a number from " + std::to_string(limit.least) + " to " + std::to_string(limit.most);
    case choice:
        return choice_list(limit.choices);
    case text:
        return std::string(limit.least > 1 ? "nothing, or " : "") + range_text(limit, " bytes") +
               R"( without ", line breaks or blanks before ;)";
    case word:
        return range_text(limit, " letters, digits or ._-") +
               (limit.choices.empty() ? "" : ", such as " + choice_list(limit.choices));
    case url:
        return std::string(limit.scheme) + "://..." +
               (allows_rtmps(limit) ? " or rtmps://..., " : ", ") + range_text(limit, " bytes") +
               ", or nothing";
    case address:
        return "an IPv4 address such as 192.168.1.100, or nothing";
    case mask:
        return "a network mask such as 255.255.255.0, or nothing";
    case country:
        return "two letters such as DE, or nothing";
    case channel:
        return "a channel of 2.4 GHz (1 to 14) or 5 GHz (36 to 177), or 0";
    case network_id:
        return "16 hexadecimal digits, or nothing";
    case receivers:
        return "up to ten ADDRESS:PORT separated by commas, such as "
               "192.168.1.30:5600,192.168.1.31:5600";
    case movements:
        return "up to 20 movements separated by ;, each of 10 or 11 fields separated by ,";
    }
    return "";
}
