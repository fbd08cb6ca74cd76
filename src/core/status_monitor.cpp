#include "core/status_monitor.h"

#include "automove/movement_list.h"
#include "automove/movement_runner.h"
#include "base/bytes.h"
#include "base/clock.h"
#include "base/file_text.h"
#include "base/shared_memory.h"
#include "base/text.h"
#include "base/version.h"
#include "config/config.h"
#include "config/wlan_iface.h"
#include "core/storage.h"
#include "media/data_source.h"
#include "media/video_source.h"
#include "net/relay.h"
#include "rc/rc_block.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <unistd.h>

// Offsets in the status record; numbers are little-endian.
constexpr size_t kind_at = 0; // 4: status
constexpr size_t app_type_at = 1;
constexpr size_t client_count_at = 3;  // byte 2 is reserved, 0
constexpr size_t network_flags_at = 4; // bit 0 access point, 1 Wi-Fi, 2 camera network
constexpr size_t source_present_at = 5;
constexpr size_t service_flags_at = 6; // bit 0 recording, 1 UDP, 2 RTMP, 3 SRT, 4 RTSP
constexpr size_t rtmp_number_at = 7;   // u32
constexpr size_t recorder_number_at = 11;
constexpr size_t rc1_state_byte_at = 15;
constexpr size_t rc2_state_byte_at = 16;
constexpr size_t osd_at = 17;
constexpr size_t temperature_at = 18; // degrees Celsius
constexpr size_t version_at = 19;     // three bytes
constexpr size_t storage_place_at = 22;
constexpr size_t storage_free_at = 23; // u32, megabytes
constexpr size_t srt_seconds_at = 27;  // u32
constexpr size_t rtsp_number_at = 31;  // u32
constexpr size_t movement_running_at = 35;
constexpr size_t movement_index_at = 36;
constexpr size_t movement_count_at = 37;
constexpr size_t movement_nearest_at = 38;
constexpr size_t data_present_at = 39;
constexpr size_t video_present_at = 40;
static_assert(video_present_at + 1 == status_record_size);

constexpr uint8_t status_kind = 4;
constexpr size_t number_size = 100;
constexpr size_t path_size = 100;
constexpr uint32_t map_retry_ms = 1000;

static uint8_t low_bit(int32_t setting) {
    return static_cast<uint8_t>(setting & 1);
}

static uint8_t network_flags(const BoardStatus &status) {
    return static_cast<uint8_t>((status.access_point_active ? 1 : 0) |
                                (status.wifi_connected ? 2 : 0) |
                                (status.camera_connected ? 4 : 0));
}

static uint8_t service_flags(const ConfigRecord &config) {
    const int rtmp = low_bit(config.stream_rtmp_enabled) | low_bit(config.stream2_rtmp_enabled);
    return static_cast<uint8_t>(
        low_bit(config.recording_enabled) | low_bit(config.stream_udp_enabled) << 1 | rtmp << 2 |
        low_bit(config.stream_srt_enabled) << 3 | low_bit(config.rtsp_server_enabled) << 4);
}

void fill_status_record(const BoardStatus &status, const ConfigRecord &config, uint8_t *record) {
    memset(record, 0, status_record_size);
    record[kind_at] = status_kind;
    record[app_type_at] = config.app_type;
    record[client_count_at] = status.client_count;
    record[network_flags_at] = network_flags(status);
    record[source_present_at] = status.data_present || status.video_present ? 1 : 0;
    record[service_flags_at] = service_flags(config);
    put_u32(record + rtmp_number_at, static_cast<uint32_t>(status.rtmp_number));
    put_u32(record + recorder_number_at, static_cast<uint32_t>(status.recorder_number));
    record[rc1_state_byte_at] = status.rc1_state;
    record[rc2_state_byte_at] = status.rc2_state;
    record[osd_at] = static_cast<uint8_t>(static_cast<uint32_t>(config.osd_enabled) +
                                          2 * static_cast<uint32_t>(config.osd_borders));
    record[temperature_at] = static_cast<uint8_t>(status.millidegrees / 1000);
    memcpy(record + version_at, program_version, sizeof program_version);
    record[storage_place_at] = status.storage.place;
    put_u32(record + storage_free_at, status.storage.free_megabytes);
    put_u32(record + srt_seconds_at, status.srt_seconds);
    put_u32(record + rtsp_number_at, static_cast<uint32_t>(status.rtsp_number));
    record[movement_running_at] = status.movement_running ? 1 : 0;
    record[movement_index_at] = static_cast<uint8_t>(status.movement_index);
    record[movement_count_at] = static_cast<uint8_t>(status.movement_count);
    record[movement_nearest_at] = static_cast<uint8_t>(status.movement_nearest);
    record[data_present_at] = status.data_present ? 1 : 0;
    record[video_present_at] = status.video_present ? 1 : 0;
}

static bool exists(const char *path) {
    return access(path, F_OK) == 0;
}

static bool is_connected(const char *setting) {
    char path[path_size];
    snprintf(path, sizeof path, "/run/quillorbeacon/%s.connected", map_wlan_iface(setting));
    return exists(path);
}

// The number at the start of a file; 0 when there is no such file.
static int32_t number_in(const char *path) {
    return parse_number(file_text(path, number_size).c_str());
}

// Seconds since the time at the start of a file; 0 when there is none. parse_number would clamp
// that time after 2038.
static uint32_t seconds_since(const char *path) {
    const long long timestamp = strtoll(file_text(path, number_size).c_str(), nullptr, 10);
    if (timestamp == 0) {
        return 0;
    }
    return static_cast<uint32_t>(time(nullptr)) - static_cast<uint32_t>(timestamp);
}

// The RC reader's block, opened on the first call; null when that failed. It is then tried again
// once a second.
static const uint8_t *states_block() {
    static const uint8_t *block;
    static MapTry next_try = MapTry::first;
    static uint32_t tried_at = now_ms() - map_retry_ms;
    const uint32_t now = now_ms();
    if (block == nullptr && now - tried_at >= map_retry_ms) {
        tried_at = now;
        block = open_rc_block(next_try);
        next_try = MapTry::again;
    }
    return block;
}

// What was truncated while /dev/shm was full comes back when there is room.
static void map_what_is_detached() {
    static uint32_t tried_at;
    if (now_ms() - tried_at >= map_retry_ms) {
        tried_at = now_ms();
        map_detached_memory();
    }
}

// Status that comes from files.
static void read_files(BoardStatus &status, const ConfigRecord &config) {
    status.access_point_active = exists("/run/quillorbeacon/ap.active");
    status.wifi_connected = is_connected(config.wifi_iface);
    status.camera_connected = is_connected(config.camera_iface);
    status.rtmp_number = number_in("/run/quillorbeacon/rtmp-streamer.info");
    status.rtsp_number = number_in("/run/quillorbeacon/rtsp-server.info");
    status.srt_seconds = seconds_since("/tmp/srt-client-connect-timestamp");
    status.recorder_number = number_in("/run/quillorbeacon/recorder.info");
    status.millidegrees = number_in("/sys/class/thermal/thermal_zone0/temp");
}

// Status that other threads and programs keep in memory.
static void read_memory(BoardStatus &status) {
    status.client_count = relay_clients().count;
    status.data_present = data_source_present();
    status.video_present = video_present();
    const uint8_t *block = states_block();
    status.rc1_state = rc_receiver_state(block, 0);
    status.rc2_state = rc_receiver_state(block, 1);
    status.movement_running = automove_running();
    status.movement_index = automove_index();
    status.movement_count = movement_count();
    status.movement_nearest = automove_nearest();
}

void poll_status() {
    map_what_is_detached();
    const ConfigRecord &config = config_record();
    BoardStatus status{};
    read_files(status, config);
    status.storage = chosen_storage();
    read_memory(status);
    RelayPacket packet; // NOLINT(cppcoreguidelines-pro-type-member-init): only the start is used
    fill_status_record(status, config, packet.payload);
    set_payload_length(packet, status_record_size);
    relay_to_clients(relay_type_data, packet);
}
