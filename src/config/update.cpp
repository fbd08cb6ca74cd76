#include "config/update.h"

#include "automove/movement_list.h"
#include "automove/movement_runner.h"
#include "base/json_command.h"
#include "base/process_end.h"
#include "base/shell.h"
#include "base/text.h"
#include "config/config.h"
#include "config/display_output.h"
#include "config/loader.h"
#include "config/restream_clients.h"
#include "config/wired_address.h"
#include "config/writer.h"
#include "core/gpio.h"
#include "core/process_control.h"
#include "media/video_source.h"
#include "net/display_process.h"

#include <cstdio>
#include <cstring>
#include <span>
#include <string>

constexpr size_t command_size = 100;
constexpr size_t country_command_size = 30;
constexpr const char *kill_cams_command = "cd ../cams ; ./kill-cams.sh ; cd ..";
constexpr const char *recorder_marker_on = "touch /run/quillorbeacon/recorder-enabled";
constexpr const char *recorder_marker_off = "rm -f /run/quillorbeacon/recorder-enabled";

// Runs a command that ends in a client's value, cut to `size` - 1 characters.
static void run_with_value(const char *before, const char *value, size_t size = command_size) {
    const std::string command = before + shell_word(value);
    run_shell(command.substr(0, size - 1).c_str());
}

// What each row does once its settings are stored, in order.

static void then_save(const cJSON * /*command*/) {
    save_config();
}

static void then_ethernet(const cJSON * /*command*/) {
    const ConfigRecord &config = config_record();
    save_config();
    if (config.eth_static_ip_enabled == 0) {
        run_shell("ip addr flush dev eth0");
        run_shell("ip route delete default");
        run_shell("dhcpcd --rebind eth0");
        return;
    }
    run_shell("dhcpcd --release eth0");
    run_shell("ip addr flush dev eth0");
    set_static_address(config);
    run_shell("ip route add dev eth0 default");
}

static void log_wlan_settings(const ConfigRecord &config) {
    fprintf(stderr, "New Wlan settings:\n");
    fprintf(stderr, "\tCamera iface: %s\n", config.camera_iface);
    fprintf(stderr, "\tCamera SSID: %s\n", config.camera_ssid);
    fprintf(stderr, "\tCamera PSK: %s\n", config.camera_psk);
    fprintf(stderr, "\tNetwork iface: %s\n", config.wifi_iface);
    fprintf(stderr, "\tNetwork SSID: %s\n", config.wifi_ssid);
    fprintf(stderr, "\tNetwork PSK: %s\n", config.wifi_psk);
    fprintf(stderr, "\tAccess Point iface: %s\n", config.ap_iface);
    fprintf(stderr, "\tAccess Point SSID: %s\n", config.ap_ssid);
    fprintf(stderr, "\tAccess Point PSK: %s\n", config.ap_psk);
    fprintf(stderr, "\tAccess Point Mode: %d\n", static_cast<int>(config.ap_mode));
    fprintf(stderr, "\tAccess Point Channel: %d\n", static_cast<int>(config.ap_channel));
    fprintf(stderr, "\tAccess Point Country: %s\n", config.ap_country);
    fprintf(stderr, "\tSystem Country: %s\n", config.system_country);
}

static void then_wlan(const cJSON * /*command*/) {
    const ConfigRecord &config = config_record();
    log_wlan_settings(config);
    save_config();
    run_with_value("iw reg set ", config.system_country, country_command_size);
    run_shell("rm -f /run/quillorbeacon/ap.ready");
    run_shell("rm -f /run/quillorbeacon/wlan.ready");
    run_shell("rm -f /run/quillorbeacon/camera.ready");
}

static void then_streaming_udp(const cJSON * /*command*/) {
    ConfigRecord &config = config_record();
    parse_restream_clients(config.stream_udp_clients, config.restream_clients);
    save_config();
}

static void then_streaming_rtmp(const cJSON * /*command*/) {
    save_config();
    kill_process_by_name("rtmp-restreamer");
    kill_process_by_name("gst-rtmp");
}

static void then_streaming_rtsp(const cJSON * /*command*/) {
    save_config();
    kill_process_by_name("rtsp-server-manager");
}

static void kill_srt_processes() {
    kill_process_by_name("srt-restreamer");
    kill_process_by_name("srt-live-transmit");
    kill_process_by_name("gst-srt");
}

static void then_streaming_srt(const cJSON * /*command*/) {
    save_config();
    kill_srt_processes();
}

static void then_recording(const cJSON * /*command*/) {
    use_inputs(config_record());
    save_config();
    run_shell(recorder_marker_off);
    signal_recorder();
    run_shell(kill_cams_command);
}

// Switches the live recording state; nothing is saved.
static void then_rec(const cJSON * /*command*/) {
    signal_recorder();
    if (config_record().recording_enabled == 0) {
        run_shell(recorder_marker_off);
        return;
    }
    run_shell(recorder_marker_on);
    run_shell(kill_cams_command);
}

static void then_transcoding(const cJSON * /*command*/) {
    reinit_frame_rings();
    save_config();
    kill_process_by_name("transcoder");
    kill_srt_processes();
    kill_process_by_name("rtsp-server-manager");
}

static void then_audio(const cJSON * /*command*/) {
    save_config();
    kill_process_by_name("gst-audio-src");
    kill_process_by_name("gst-rtmp");
    kill_process_by_name("rtsp-server-manager");
}

static void then_display_enabled(const cJSON * /*command*/) {
    save_config();
    kill_process_by_name("display");
    kill_process_by_name("osd");
}

static void notify_and_save(bool is_on, const char *on, const char *off) {
    notify_display_process(is_on ? on : off);
    save_config();
}

static void then_display_hflip(const cJSON * /*command*/) {
    notify_and_save(config_record().display_hflip != 0, "hflip_on", "hflip_off");
}

static void then_display_vflip(const cJSON * /*command*/) {
    notify_and_save(config_record().display_vflip != 0, "vflip_on", "vflip_off");
}

static void then_display_aspect(const cJSON * /*command*/) {
    notify_and_save(config_record().display_keep_aspect != 0, "aspect_on", "aspect_off");
}

static void then_display_smooth(const cJSON * /*command*/) {
    notify_and_save(config_record().display_smooth != 0, "smooth_on", "smooth_off");
}

static void then_dual_hdmi(const cJSON * /*command*/) {
    save_config();
    run_shell("killall -q display");
}

static void then_tft(const cJSON * /*command*/) {
    save_config();
    stop_tft_display_processes();
}

static void then_cvbs_test(const cJSON *command) {
    switch_composite_output(member_or_empty(command, "value2"), member_or_empty(command, "value3"),
                            member_or_empty(command, "value4"), false);
}

static void then_cvbs_test_and_save(const cJSON *command) {
    switch_composite_output(member_or_empty(command, "value2"), member_or_empty(command, "value3"),
                            member_or_empty(command, "value4"), true);
}

static void then_hdmi_test(const cJSON *command) {
    switch_hdmi_output(member_or_empty(command, "value2"), member_or_empty(command, "value3"),
                       false);
}

static void then_hdmi_test_and_save(const cJSON *command) {
    switch_hdmi_output(member_or_empty(command, "value2"), member_or_empty(command, "value3"),
                       true);
}

// The process ends, so that the supervisor starts it again for the new kind of camera.
static void then_app_type(const cJSON * /*command*/) {
    save_config();
    run_shell(kill_cams_command);
    run_shell("killall -q display osd");
    stop_tft_display_processes();
    char command[command_size];
    snprintf(command, sizeof command, "./otg-switcher.php %d",
             static_cast<int>(config_record().app_type));
    run_shell(command);
    end_process(exit_status_failure);
}

static void then_internal_camera(const cJSON * /*command*/) {
    save_config();
    kill_process_by_name("raspivid");
}

static void then_rc(const cJSON * /*command*/) {
    save_config();
    kill_process_by_name("rc");
}

static void then_fs_rw(const cJSON * /*command*/) {
    save_config();
    if (config_record().fs_rw != 0) {
        fputs("Mounting FS in read-write mode\n", stderr);
        run_shell("mount -o rw,remount /");
        run_shell("mount -o rw,remount /boot");
    }
}

static void then_automovement_params(const cJSON * /*command*/) {
    const ConfigRecord &config = config_record();
    set_movement_list(config.automove_list);
    save_config();
    set_automove_state(config.automove_enabled);
}

static void then_move(const cJSON *command) {
    run_movement(parse_number(member_or_empty(command, "value2")));
}

static void then_move_next(const cJSON * /*command*/) {
    move_next();
}

static void then_move_previous(const cJSON * /*command*/) {
    move_prev();
}

static void then_set_movement_state(const cJSON *command) {
    set_automove_state(parse_number(member_or_empty(command, "value2")));
}

static void then_zerotier_params(const cJSON * /*command*/) {
    if (config_record().zerotier_enabled == 0) {
        run_shell("killall -q zerotier-one");
    }
    save_config();
}

static void then_zerotier_join(const cJSON *command) {
    run_with_value("zerotier-cli join ", member_or_empty(command, "value4"));
}

static void then_zerotier_leave(const cJSON *command) {
    run_with_value("zerotier-cli leave ", member_or_empty(command, "value4"));
}

static void then_zerotier_clear(const cJSON * /*command*/) {
    run_shell("mount -o rw,remount /boot");
    run_shell("rm -f /boot/identity.public /boot/identity.secret");
    run_shell("mount -o ro,remount /boot");
    run_shell("killall -q zerotier-one");
}

// A setting that a row takes, and the member it takes it from.
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

// What one param, or one of its sub-commands, does.
struct UpdateRow {
    const char *param;
    const char *sub_command; // "value" must be this; null: whatever it is
    std::span<const TakenSetting> takes;
    void (*then)(const cJSON *command);
    const char *announcement; // said before the settings change; null: nothing
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
    cJSON *command = cJSON_Parse(text);
    const char *param = require_member(command, "param");
    const UpdateRow *row = find_row(param, member_or_empty(command, "value"));
    if (row != nullptr) {
        carry_out(*row, command);
    }
    cJSON_Delete(command);
}
