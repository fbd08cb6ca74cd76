#include "client/status_record.h"

#include "client/packet.h"

#include "base/text.h"

#include <array>
#include <cstdio>

static bool bit(uint8_t flags, unsigned number) {
    return (flags >> number & 1U) != 0;
}

std::optional<StatusRecord> parse_status(std::span<const uint8_t> payload) {
    if (!is_status_payload(payload)) {
        return std::nullopt;
    }
    const uint8_t *at = payload.data();
    StatusRecord record{};
    record.app_type = at[1];
    record.client_count = at[3];
    record.access_point = bit(at[4], 0);
    record.wifi = bit(at[4], 1);
    record.camera_network = bit(at[4], 2);
    record.is_recording = bit(at[6], 0);
    record.udp = bit(at[6], 1);
    record.rtmp = bit(at[6], 2);
    record.srt = bit(at[6], 3);
    record.rtsp = bit(at[6], 4);
    record.rtmp_number = get_u32(at + 7);
    record.recorder_number = get_u32(at + 11);
    record.rc_state[0] = at[15];
    record.rc_state[1] = at[16];
    record.osd = bit(at[17], 0);
    record.osd_borders = bit(at[17], 1);
    record.temperature = at[18] < 0x80 ? at[18] : at[18] - 0x100;
    record.version[0] = at[19];
    record.version[1] = at[20];
    record.version[2] = at[21];
    record.storage_place = at[22];
    record.free_megabytes = get_u32(at + 23);
    record.srt_seconds = get_u32(at + 27);
    record.rtsp_number = get_u32(at + 31);
    record.movement_running = at[35] != 0;
    record.movement_index = at[36];
    record.movement_count = at[37];
    record.movement_nearest = at[38];
    record.data_source = at[39] != 0;
    record.video = at[40] != 0;
    return record;
}

std::string app_type_text(int app_type) {
    constexpr std::array names = {
        "DJI Osmo/Osmo+/Osmo Pro/Osmo RAW wireless",
        "DJI Osmo Pro/RAW with Wired video adapter",
        "DJI Zenmuse",
        "DJI Osmo Pocket USB",
        "DJI Osmo Pocket Wireless",
        "DJI Osmo Action Wireless",
        "GoPro Wireless",
        "Xiaomi Yi Wireless",
        "Phantom4, Mavic, etc",
        "Twinmoor / Raspberry Pi",
        "Insta360 EVO Wireless connection",
        "Oculus Go/Quest",
        "OBSBOT Tail",
        "RTSP/ONVIF camera",
        "DJI Pocket 2 USB",
        "DJI Pocket 2 Wireless",
    };
    const auto number = static_cast<size_t>(app_type);
    return number < names.size() ? names[number] : "type " + std::to_string(app_type);
}

std::string megabytes_text(double megabytes) {
    char text[40];
    if (megabytes < 1000) {
        snprintf(text, sizeof text, "%.0f MB", megabytes);
    } else {
        snprintf(text, sizeof text, "%.1f GB", megabytes / 1000);
    }
    return text;
}

// Those parts whose flag is set, between commas; `none` when no flag is.
static std::string list_of(std::initializer_list<std::pair<bool, std::string>> parts,
                           const char *none) {
    std::string list;
    for (const auto &[is_set, text] : parts) {
        if (is_set) {
            list += (list.empty() ? "" : ", ") + text;
        }
    }
    return list.empty() ? none : list;
}

// A service, and the number that it publishes where there is one.
static std::string with_number(const char *service, uint32_t number) {
    return number == 0 ? service : std::string(service) + " (" + std::to_string(number) + ")";
}

static std::string storage_text(const StatusRecord &record) {
    switch (record.storage_place) {
    case 0:
        return "not examined on this board";
    case 1:
        return "internal, " + megabytes_text(record.free_megabytes) + " free";
    case 2:
        return record.free_megabytes == 0
                   ? "external, no free space or no drive"
                   : "external, " + megabytes_text(record.free_megabytes) + " free";
    case 255:
        return "no free space anywhere";
    default:
        return "place " + std::to_string(record.storage_place);
    }
}

static std::string links_text(const StatusRecord &record) {
    return list_of({{record.access_point, "access point up"},
                    {record.wifi, "Wi-Fi connected"},
                    {record.camera_network, "camera network connected"}},
                   "none up");
}

static std::string sources_text(const StatusRecord &record) {
    return list_of({{record.data_source, "telemetry"}, {record.video, "video"}}, "none");
}

static std::string services_text(const StatusRecord &record) {
    const std::string srt = record.srt_seconds == 0
                                ? "SRT"
                                : "SRT (client for " + std::to_string(record.srt_seconds) + " s)";
    return list_of(
        {{record.is_recording, with_number("recording", record.recorder_number)},
         {record.udp, "UDP"},
         {record.rtmp, with_number("RTMP", record.rtmp_number)},
         {record.srt, srt},
         {record.rtsp, with_number("RTSP", record.rtsp_number)},
         {record.osd, record.osd_borders ? "on-screen display with borders" : "on-screen display"}},
        "all off");
}

static std::string receiver_text(uint8_t state) {
    constexpr std::array texts = {"absent", "present", "calibrating"};
    return state < texts.size() ? texts[state] : "state " + std::to_string(state);
}

static std::string rc_text(const StatusRecord &record) {
    if (record.rc_state[0] == 0 && record.rc_state[1] == 0) {
        return "no receiver";
    }
    return "RC1 " + receiver_text(record.rc_state[0]) + ", RC2 " +
           receiver_text(record.rc_state[1]);
}

static std::string movement_text(const StatusRecord &record) {
    if (record.movement_count == 0) {
        return record.movement_running ? "running, but the list is empty" : "no list";
    }
    const std::string steps =
        std::to_string(record.movement_count) + (record.movement_count == 1 ? " step" : " steps");
    const std::string nearest =
        ", camera nearest to step " + std::to_string(record.movement_nearest + 1);
    if (!record.movement_running) {
        return "stopped, " + steps + nearest;
    }
    // Between two rounds the number may be past the last step.
    return (record.movement_index < record.movement_count
                ? "at step " + std::to_string(record.movement_index + 1) + " of "
                : "running, ") +
           steps + nearest;
}

static std::string version_text(const StatusRecord &record) {
    return std::to_string(record.version[0]) + "." + std::to_string(record.version[1]) + "." +
           std::to_string(record.version[2]);
}

StatusWords status_words(const StatusRecord &record) {
    return {
        {"Camera", app_type_text(record.app_type)},
        {"Sources", sources_text(record)},
        {"Storage", storage_text(record)},
        {"Links", links_text(record)},
        {"Services", services_text(record)},
        {"Temperature", std::to_string(record.temperature) + " °C"},
        {"RC", rc_text(record)},
        {"Movement", movement_text(record)},
        {"Clients", std::to_string(record.client_count)},
        {"Version", version_text(record)},
    };
}

std::string status_line(const StatusRecord &record) {
    return "sources: " + sources_text(record) + "; storage: " + storage_text(record) +
           "; links: " + links_text(record) + "; services: " + services_text(record) + "; " +
           std::to_string(record.temperature) + " °C; RC: " + rc_text(record) +
           "; movement: " + movement_text(record) +
           "; clients: " + std::to_string(record.client_count);
}
