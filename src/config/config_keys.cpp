#include "config/config_keys.h"

#include "config/restream_clients.h"

#include <cstddef>
#include <cstring>

static void rebuild_restream_clients(ConfigRecord &record) {
    parse_restream_clients(record.stream_udp_clients, record.restream_clients);
}

static constexpr ConfigKey number_key(const char *key, Relaxed<int32_t> ConfigRecord::*field,
                                      const char *heading) {
    return {key,    SettingKind::number, field, nullptr, 0, 0, false, false, nullptr, nullptr,
            heading};
}

static constexpr ConfigKey byte_key(const char *key, SettingKind kind,
                                    Relaxed<uint8_t> ConfigRecord::*field, const char *heading) {
    return {key, kind, nullptr, field, 0, 0, false, false, nullptr, nullptr, heading};
}

// The position of a text in the record.
struct TextField {
    size_t offset;
    size_t size;
};

// Are a text's double quotes removed on loading, and is it written in double quotes?
struct Quotes {
    bool removed;
    bool written;
};

static constexpr ConfigKey text_key(const char *key, TextField field, Quotes quotes,
                                    const char *heading, const char *when_empty = nullptr,
                                    void (*on_loaded)(ConfigRecord &) = nullptr) {
    return {key,          SettingKind::text, nullptr,        nullptr,
            field.offset, field.size,        quotes.removed, quotes.written,
            when_empty,   on_loaded,         heading};
}

// One macro for each way a key is stored in the file; the record's field has the key's name.
// QUOTED_TEXT is written in double quotes, which are removed on loading; UNQUOTED_TEXT is written
// without them, and they are removed on loading; BARE_TEXT is stored as it is.
#define FIELD(key)                                                                                 \
    TextField {                                                                                    \
        offsetof(ConfigRecord, key), sizeof(ConfigRecord::key)                                     \
    }
#define NUMBER(key, heading) number_key(#key, &ConfigRecord::key, heading)
#define BYTE(key, heading) byte_key(#key, SettingKind::byte, &ConfigRecord::key, heading)
#define FLAG(key, heading) byte_key(#key, SettingKind::flag, &ConfigRecord::key, heading)
#define BARE_TEXT(key, heading) text_key(#key, FIELD(key), {false, false}, heading)
#define QUOTED_TEXT(key, heading) text_key(#key, FIELD(key), {true, true}, heading)
#define UNQUOTED_TEXT(key, heading) text_key(#key, FIELD(key), {true, false}, heading)
#define STATIC_MASK(key, heading)                                                                  \
    text_key(#key, FIELD(key), {false, false}, heading, default_static_mask)
#define RESTREAM_LIST(key, heading)                                                                \
    text_key(#key, FIELD(key), {false, false}, heading, nullptr, rebuild_restream_clients)

const ConfigKey config_keys[config_key_count] = {
    BYTE(app_type, "# Application type\n"
                   "# 0 - DJI Osmo/Osmo+/Osmo Pro/Osmo RAW wireless \n"
                   "# 1 - DJI Osmo Pro/RAW with Wired video adapter \n"
                   "# 2 - DJI Zenmuse \n"
                   "# 3 - DJI Osmo Pocket USB \n"
                   "# 4 - DJI Osmo Pocket Wireless \n"
                   "# 5 - DJI Osmo Action Wireless \n"
                   "# 6 - GoPro Wireless \n"
                   "# 7 - Xiaomi Yi Wireless \n"
                   "# 8 - Phantom4, Mavic, etc \n"
                   "# 9 - Twinmoor / Raspberry Pi \n"
                   "# 10 - Insta360 EVO Wireless connection \n"
                   "# 11 - Oculus Go/Quest \n"
                   "# 12 - OBSBOT Tail \n"
                   "# 13 - RTSP/ONVIF camera \n"
                   "# 14 - DJI Pocket 2 USB \n"
                   "# 15 - DJI Pocket 2 Wireless \n"),
    QUOTED_TEXT(device_name, "# User-friendly device name\n"),
    FLAG(fs_rw, "# Mount file system in read-write mode at start\n"),
    FLAG(make_preview, "# Make preview images\n"),
    BYTE(eth_static_ip_enabled, "# Static IP for Ethernet enable/disable\n"
                                "# 1 - enabled\n"
                                "# 0 - disabled\n"),
    BARE_TEXT(eth_static_ip, "# Static IP address for Ethernet (example: 192.168.1.100)\n"),
    STATIC_MASK(eth_static_mask, "# Static IP mask for Ethernet (example: 255.255.255.0)\n"),
    UNQUOTED_TEXT(system_country, "# Wi-Fi system country code\n"),
    UNQUOTED_TEXT(ap_iface,
                  "# Wi-Fi access point interface\n"
                  "# disabled if empty, int - Internal Wi-Fi, ext - External USB Wi-Fi \n"),
    QUOTED_TEXT(ap_ssid, "# Wi-Fi access point SSID\n"),
    QUOTED_TEXT(ap_psk, "# Wi-Fi access point password\n"),
    NUMBER(ap_mode, "# Wi-Fi access point mode\n"
                    "# 2 - 2.4GHz, 5 - 5GHz\n"),
    NUMBER(ap_channel, "# Wi-Fi access point channel\n"),
    UNQUOTED_TEXT(ap_country, "# Wi-Fi access point country\n"),
    UNQUOTED_TEXT(wifi_iface,
                  "# Wi-Fi network interface\n"
                  "# disabled if empty, int - Internal Wi-Fi, ext - External USB Wi-Fi \n"),
    QUOTED_TEXT(wifi_ssid, "# Wi-Fi network SSID\n"),
    QUOTED_TEXT(wifi_psk, "# Wi-Fi network password\n"),
    BYTE(wifi_static_ip_enabled, "# Static IP for Wi-Fi network enable/disable\n"
                                 "# 1 - enabled\n"
                                 "# 0 - disabled\n"),
    BARE_TEXT(wifi_static_ip, "# Static IP address for Wi-Fi network (example: 192.168.1.100)\n"),
    STATIC_MASK(wifi_static_mask, "# Static IP mask for Wi-Fi network (example: 255.255.255.0)\n"),
    UNQUOTED_TEXT(camera_iface,
                  "# Wi-Fi camera interface\n"
                  "# disabled if empty, int - Internal Wi-Fi, ext - External USB Wi-Fi \n"),
    QUOTED_TEXT(camera_ssid, "# Wi-Fi camera SSID\n"),
    QUOTED_TEXT(camera_psk, "# Wi-Fi camera password\n"),
    NUMBER(internal_camera_enabled, "# Internal camera enable/disable\n"),
    QUOTED_TEXT(internal_camera_params, "# Internal camera params\n"),
    NUMBER(display_enabled, "# Display enabled/disabled\n"),
    NUMBER(enable_second_hdmi, "# Second HDMI enabled/disabled (RPI4 only)\n"),
    NUMBER(display_hflip, "# Display horizontal flip\n"),
    NUMBER(display_vflip, "# Display vertical flip\n"),
    NUMBER(display_keep_aspect, "# Display keep aspect ratio\n"),
    NUMBER(display_smooth, "# Display try to show smooth\n"),
    NUMBER(osd_enabled, "# OSD enabled/disabled\n"),
    NUMBER(osd_borders, "# OSD borders\n"),
    NUMBER(tft_display_enabled, "# TFT display enabled/disabled\n"),
    NUMBER(tft_display_model, "# TFT display model\n"
                              "# 0 - don't use\n"
                              "# 1 - Waveshare 2 inch\n"
                              "# 2 - Waveshare 3.5 inch A\n"
                              "# 3 - Waveshare 3.5 inch B\n"),
    NUMBER(stream_udp_enabled, "# UDP restreaming enabled/disabled\n"),
    RESTREAM_LIST(stream_udp_clients, "# UDP restreaming clients list\n"),
    NUMBER(stream_udp_blocksize, "# UDP restreaming block size\n"),
    NUMBER(rtsp_server_enabled, "# RTSP server enabled/disabled\n"),
    NUMBER(stream_rtmp_enabled, "# RTMP stream 1 enabled/disabled\n"),
    QUOTED_TEXT(stream_rtmp_url, "# RTMP stream 1 URL\n"),
    QUOTED_TEXT(stream_rtmp_key, "# RTMP stream 1 key\n"),
    NUMBER(stream2_rtmp_enabled, "# RTMP stream 2 enabled/disabled\n"),
    QUOTED_TEXT(stream2_rtmp_url, "# RTMP stream 2 URL\n"),
    QUOTED_TEXT(stream2_rtmp_key, "# RTMP stream 2 key\n"),
    NUMBER(stream_srt_enabled, "# SRT restreaming enabled/disabled\n"),
    BARE_TEXT(stream_srt_url, "# SRT url\n"),
    NUMBER(recording_enabled, "# Onboard recording enabled/disabled\n"),
    BYTE(recording_place, "# Onboard recording storage place\n"
                          "# 0 - auto\n"
                          "# 1 - internal (microSD)\n"
                          "# 2 - external (USB flash drive)\n"),
    BYTE(recording_gpio, "# Onboard recording GPIO number for trigger start/stop (recording is "
                         "active while GPIO is high)\n"),
    BYTE(recording_btn_gpio, "# Onboard recording GPIO number for button start/stop (recording "
                             "starts/stop when GPIO is high)\n"),
    BYTE(shot_btn_gpio, "# GPIO number for make a shot\n"),
    NUMBER(transcoding_enabled, "# Transcoding enabled/disabled\n"),
    NUMBER(transcoding_bitrate, "# Transcoding bitrate\n"),
    NUMBER(resize_enabled, "# Resize enabled/disabled\n"),
    NUMBER(resize_width, "# Resize width\n"),
    NUMBER(resize_height, "# Resize height\n"),
    NUMBER(audio_enabled, "# Audio enabled/disabled\n"),
    NUMBER(audio_bitrate, "# Audio bitrate\n"),
    NUMBER(audio_dst, "# Audio destination\n"
                      "# 0 - Disabled\n"
                      "# 1 - HDMI\n"
                      "# 2 - TV-out\n"),
    NUMBER(audio_autogain, "# Audio auto gain\n"
                           "# 0 - disabled\n"
                           "# 1 - enabled\n"),
    NUMBER(audio_volume, "# Audio capture volume\n"),
    BYTE(rc_enabled, "# RC enabled\n"),
    BARE_TEXT(rc1_mode, "# RC1 mode\n"),
    BARE_TEXT(rc2_mode, "# RC2 mode\n"),
    BARE_TEXT(rc1_channels, "# RC1 channels\n"),
    BARE_TEXT(rc2_channels, "# RC2 channels\n"),
    NUMBER(gimbal_movement_type, "# Gimbal movement type\n"
                                 "# 0 - relative movement (set gimbal speed)\n"
                                 "# 1 - absolute movement (set gimbal position)\n"),
    NUMBER(rc_pan_smooth, "\n### Gimbal smooth control ###\n\n"
                          "# RC smooth pan value\n"),
    NUMBER(rc_tilt_smooth, "# RC smooth tilt value\n"),
    NUMBER(rc_roll_smooth, "# RC smooth roll value\n"),
    NUMBER(app_pan_smooth, "# App smooth pan value\n"),
    NUMBER(app_tilt_smooth, "# App smooth tilt value\n"),
    NUMBER(app_roll_smooth, "# App smooth roll value\n"),
    NUMBER(automove_enabled, "\n### Auto Movement control ###\n\n"
                             "# Auto Movement enabled\n"),
    NUMBER(automove_smooth, "# Auto Movement Smooth Mode enabled\n"),
    NUMBER(automove_smooth_speed, "# Auto Movement Smooth Mode speed\n"),
    QUOTED_TEXT(automove_list, "# Auto Movement list\n"),
    NUMBER(zerotier_enabled, "\n### ZeroTier ###\n\n"
                             "# Enable Zerotier network\n"),
    NUMBER(zerotier_autojoin, "# Auto join on start-up enabled\n"),
    BARE_TEXT(zerotier_netid, "# Network ID\n"),
};

const ConfigKey *find_config_key(const char *key) {
    for (const ConfigKey &row : config_keys) {
        if (strcmp(row.key, key) == 0) {
            return &row;
        }
    }
    return nullptr;
}
