#include "client/status_words.h"

#include <array>
#include <cstdio>

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

// The parts whose flag is set, separated by commas; `none` if no flag is set.
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

// A service, with the number that it publishes. 0 is `unseen`: the flag is only the setting.
static std::string with_number(const char *service, uint32_t number, const char *unseen) {
    return std::string(service) + " (" + (number == 0 ? unseen : std::to_string(number)) + ")";
}

static std::string storage_text(const StatusRecord &record, Drive drive) {
    if (drive == Drive::missing) {
        return record.storage_place == 1 ? "internal, no drive mounted: -"
                                         : "external, no drive mounted: -";
    }
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
    constexpr const char *not_running = "wanted, not running";
    constexpr const char *no_viewer = "wanted, no viewer"; // it may run, or not
    const std::string srt = record.srt_seconds == 0
                                ? no_viewer
                                : "client for " + std::to_string(record.srt_seconds) + " s";
    return list_of(
        {{record.is_recording, with_number("recording", record.recorder_number, not_running)},
         {record.udp, "UDP"},
         {record.rtmp, with_number("RTMP", record.rtmp_number, not_running)},
         {record.srt, "SRT (" + srt + ")"},
         {record.rtsp, with_number("RTSP", record.rtsp_number, no_viewer)},
         {record.osd, record.osd_borders ? "on-screen display with borders" : "on-screen display"}},
        "all off");
}

// The daemon says 0 when it cannot read the temperature.
static std::string temperature_text(const StatusRecord &record) {
    return record.temperature == 0 ? "-" : std::to_string(record.temperature) + " °C";
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
    // Between two rounds the index may be past the last step.
    return (record.movement_index < record.movement_count
                ? "at step " + std::to_string(record.movement_index + 1) + " of "
                : "running, ") +
           steps + nearest;
}

static std::string version_text(const StatusRecord &record) {
    return std::to_string(record.version[0]) + "." + std::to_string(record.version[1]) + "." +
           std::to_string(record.version[2]);
}

StatusWords status_words(const StatusRecord &record, Drive drive) {
    return {
        {"Camera", app_type_text(record.app_type)},
        {"Sources", sources_text(record)},
        {"Storage", storage_text(record, drive)},
        {"Links", links_text(record)},
        {"Services", services_text(record)},
        {"Temperature", temperature_text(record)},
        {"RC", rc_text(record)},
        {"Movement", movement_text(record)},
        {"Clients", std::to_string(record.client_count)},
        {"Version", version_text(record)},
    };
}

std::string status_line(const StatusRecord &record, Drive drive) {
    return "sources: " + sources_text(record) + "; storage: " + storage_text(record, drive) +
           "; links: " + links_text(record) + "; services: " + services_text(record) + "; " +
           temperature_text(record) + "; RC: " + rc_text(record) +
           "; movement: " + movement_text(record) +
           "; clients: " + std::to_string(record.client_count);
}
