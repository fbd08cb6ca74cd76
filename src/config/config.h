#pragma once

// The configuration record: every setting of the daemon, in one static object.
// Stands on: base/relaxed.

#include "base/relaxed.h"

#include <cstdint>

// Fields have the names of their keys in the configuration file; config_keys.cpp says how each is
// read.
//
// The loader fills the record on the main thread before any other thread exists. From then on all
// threads read it in place, and the update commands change it without a lock: a reader never sees
// half a number; it may see a half-changed text, but the text always ends within its field.

constexpr int restream_capacity = 10;

// The receivers of raw video, parsed from `stream_udp_clients`.
struct RestreamClients {
    // Each entry's address, as ipv4_port packs it; 0 when its host is not a dotted address.
    Relaxed<uint64_t> addresses[restream_capacity];
    // Where each entry's frames go: its address, or 0 when nothing is sent to it.
    Relaxed<uint64_t> destinations[restream_capacity];
    Relaxed<int32_t> count;
};

struct ConfigRecord {
    Relaxed<uint8_t> app_type;
    char device_name[40];
    char system_country[5];
    Relaxed<uint8_t> eth_static_ip_enabled;
    char eth_static_ip[20];
    char eth_static_mask[20];
    char ap_iface[10];
    char ap_ssid[40];
    char ap_psk[40];
    Relaxed<int32_t> ap_mode;
    Relaxed<int32_t> ap_channel;
    char ap_country[5];
    char wifi_iface[10];
    char wifi_ssid[40];
    char wifi_psk[40];
    Relaxed<uint8_t> wifi_static_ip_enabled;
    char wifi_static_ip[20];
    char wifi_static_mask[20];
    char camera_iface[10];
    char camera_ssid[40];
    char camera_psk[40];
    Relaxed<int32_t> internal_camera_enabled;
    char internal_camera_params[100];
    Relaxed<int32_t> display_enabled;
    Relaxed<int32_t> display_hflip;
    Relaxed<int32_t> display_vflip;
    Relaxed<int32_t> display_keep_aspect;
    Relaxed<int32_t> display_smooth;
    Relaxed<int32_t> enable_second_hdmi;
    Relaxed<int32_t> osd_enabled;
    Relaxed<int32_t> osd_borders;
    Relaxed<int32_t> tft_display_enabled;
    Relaxed<int32_t> tft_display_model;
    Relaxed<int32_t> stream_udp_enabled;
    char stream_udp_clients[1000];
    Relaxed<int32_t> stream_udp_blocksize;
    RestreamClients restream_clients;
    Relaxed<int32_t> rtsp_server_enabled;
    Relaxed<int32_t> stream_rtmp_enabled;
    char stream_rtmp_url[1000];
    char stream_rtmp_key[1000];
    Relaxed<int32_t> stream2_rtmp_enabled;
    char stream2_rtmp_url[1000];
    char stream2_rtmp_key[1000];
    Relaxed<int32_t> stream_srt_enabled;
    char stream_srt_url[1000];
    Relaxed<int32_t> recording_enabled; // also the live recording state
    Relaxed<uint8_t> recording_place;
    Relaxed<uint8_t> recording_gpio;     // 0: input not used
    Relaxed<uint8_t> recording_btn_gpio; // 0: input not used
    Relaxed<uint8_t> shot_btn_gpio;      // 0: input not used
    Relaxed<int32_t> transcoding_enabled;
    Relaxed<int32_t> transcoding_bitrate;
    Relaxed<int32_t> resize_enabled;
    Relaxed<int32_t> resize_width;
    Relaxed<int32_t> resize_height;
    Relaxed<int32_t> audio_enabled;
    Relaxed<int32_t> audio_bitrate;
    Relaxed<int32_t> audio_dst;
    Relaxed<int32_t> audio_autogain;
    Relaxed<int32_t> audio_volume;
    Relaxed<uint8_t> rc_enabled;
    char rc1_mode[30];
    char rc2_mode[30];
    char rc1_channels[10000];
    char rc2_channels[10000];
    Relaxed<int32_t> gimbal_movement_type;
    Relaxed<int32_t> rc_pan_smooth;
    Relaxed<int32_t> rc_tilt_smooth;
    Relaxed<int32_t> rc_roll_smooth;
    Relaxed<int32_t> app_pan_smooth;
    Relaxed<int32_t> app_tilt_smooth;
    Relaxed<int32_t> app_roll_smooth;
    Relaxed<uint8_t> fs_rw;
    Relaxed<uint8_t> make_preview;
    Relaxed<int32_t> automove_enabled;
    Relaxed<int32_t> automove_smooth;
    Relaxed<int32_t> automove_smooth_speed;
    char automove_list[1200];
    Relaxed<int32_t> zerotier_enabled;
    Relaxed<int32_t> zerotier_autojoin;
    char zerotier_netid[40];
    Relaxed<int32_t> slow_cpu; // 1 on a board whose model contains "Zero"; not a key
};

// The record. The reference is valid for the life of the process.
ConfigRecord &config_record();
