#include "config/config_keys.h"

#include "config/restream_clients.h"

#include <cstddef>

static void rebuild_restream_clients(ConfigRecord &record) {
    parse_restream_clients(record.stream_udp_clients, record.restream_clients);
}

static constexpr ConfigKey number_key(const char *key, Relaxed<int32_t> ConfigRecord::*field) {
    return {key, SettingKind::number, field, nullptr, 0, 0, false, nullptr, nullptr};
}

static constexpr ConfigKey byte_key(const char *key, SettingKind kind,
                                    Relaxed<uint8_t> ConfigRecord::*field) {
    return {key, kind, nullptr, field, 0, 0, false, nullptr, nullptr};
}

// Where a text lies in the record.
struct TextField {
    size_t offset;
    size_t size;
};

static constexpr ConfigKey text_key(const char *key, TextField field, bool removes_quotes,
                                    const char *when_empty = nullptr,
                                    void (*on_stored)(ConfigRecord &) = nullptr) {
    return {key,        SettingKind::text, nullptr,    nullptr,  field.offset,
            field.size, removes_quotes,    when_empty, on_stored};
}

// A row for each way a key is stored. The record's field has the key's name; QUOTED_TEXT loses its
// double quotes on loading.
#define FIELD(key)                                                                                 \
    TextField {                                                                                    \
        offsetof(ConfigRecord, key), sizeof(ConfigRecord::key)                                     \
    }
#define NUMBER(key) number_key(#key, &ConfigRecord::key)
#define BYTE(key) byte_key(#key, SettingKind::byte, &ConfigRecord::key)
#define FLAG(key) byte_key(#key, SettingKind::flag, &ConfigRecord::key)
#define BARE_TEXT(key) text_key(#key, FIELD(key), false)
#define QUOTED_TEXT(key) text_key(#key, FIELD(key), true)
#define STATIC_MASK(key) text_key(#key, FIELD(key), false, "255.255.255.0")
#define RESTREAM_LIST(key) text_key(#key, FIELD(key), false, nullptr, rebuild_restream_clients)

const ConfigKey config_keys[config_key_count] = {
    BYTE(app_type),
    QUOTED_TEXT(device_name),
    FLAG(fs_rw),
    FLAG(make_preview),
    BYTE(eth_static_ip_enabled),
    BARE_TEXT(eth_static_ip),
    STATIC_MASK(eth_static_mask),
    QUOTED_TEXT(system_country),
    QUOTED_TEXT(ap_iface),
    QUOTED_TEXT(ap_ssid),
    QUOTED_TEXT(ap_psk),
    NUMBER(ap_mode),
    NUMBER(ap_channel),
    QUOTED_TEXT(ap_country),
    QUOTED_TEXT(wifi_iface),
    QUOTED_TEXT(wifi_ssid),
    QUOTED_TEXT(wifi_psk),
    BYTE(wifi_static_ip_enabled),
    BARE_TEXT(wifi_static_ip),
    STATIC_MASK(wifi_static_mask),
    QUOTED_TEXT(camera_iface),
    QUOTED_TEXT(camera_ssid),
    QUOTED_TEXT(camera_psk),
    NUMBER(internal_camera_enabled),
    QUOTED_TEXT(internal_camera_params),
    NUMBER(display_enabled),
    NUMBER(enable_second_hdmi),
    NUMBER(display_hflip),
    NUMBER(display_vflip),
    NUMBER(display_keep_aspect),
    NUMBER(display_smooth),
    NUMBER(osd_enabled),
    NUMBER(osd_borders),
    NUMBER(tft_display_enabled),
    NUMBER(tft_display_model),
    NUMBER(stream_udp_enabled),
    RESTREAM_LIST(stream_udp_clients),
    NUMBER(stream_udp_blocksize),
    NUMBER(rtsp_server_enabled),
    NUMBER(stream_rtmp_enabled),
    QUOTED_TEXT(stream_rtmp_url),
    QUOTED_TEXT(stream_rtmp_key),
    NUMBER(stream2_rtmp_enabled),
    QUOTED_TEXT(stream2_rtmp_url),
    QUOTED_TEXT(stream2_rtmp_key),
    NUMBER(stream_srt_enabled),
    BARE_TEXT(stream_srt_url),
    NUMBER(recording_enabled),
    BYTE(recording_place),
    BYTE(recording_gpio),
    BYTE(recording_btn_gpio),
    BYTE(shot_btn_gpio),
    NUMBER(transcoding_enabled),
    NUMBER(transcoding_bitrate),
    NUMBER(resize_enabled),
    NUMBER(resize_width),
    NUMBER(resize_height),
    NUMBER(audio_enabled),
    NUMBER(audio_bitrate),
    NUMBER(audio_dst),
    NUMBER(audio_autogain),
    NUMBER(audio_volume),
    BYTE(rc_enabled),
    BARE_TEXT(rc1_mode),
    BARE_TEXT(rc2_mode),
    BARE_TEXT(rc1_channels),
    BARE_TEXT(rc2_channels),
    NUMBER(gimbal_movement_type),
    NUMBER(rc_pan_smooth),
    NUMBER(rc_tilt_smooth),
    NUMBER(rc_roll_smooth),
    NUMBER(app_pan_smooth),
    NUMBER(app_tilt_smooth),
    NUMBER(app_roll_smooth),
    NUMBER(automove_enabled),
    NUMBER(automove_smooth),
    NUMBER(automove_smooth_speed),
    QUOTED_TEXT(automove_list),
    NUMBER(zerotier_enabled),
    NUMBER(zerotier_autojoin),
    BARE_TEXT(zerotier_netid),
};
