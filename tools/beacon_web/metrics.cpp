#include "beacon_web/metrics.h"

#include <cstdio>

constexpr std::array stream_names = {"data", "video", "audio", "camera", "file"};
static_assert(stream_names.size() == stream_count);

static void describe(std::string &text, const char *name, const char *kind, const char *help) {
    text += std::string("# HELP beacon_") + name + " " + help + "\n# TYPE beacon_" + name + " " +
            kind + "\n";
}

static void add_value(std::string &text, const std::string &name, double value) {
    char number[40];
    snprintf(number, sizeof number, "%.15g", value);
    text += "beacon_" + name + " " + number + "\n";
}

static void add_one(std::string &text, const char *name, const char *kind, const char *help,
                    double value) {
    describe(text, name, kind, help);
    add_value(text, name, value);
}

static void add_streams(std::string &text, const BoardView &view) {
    describe(text, "stream_packets_total", "counter", "Packets from the daemon.");
    for (size_t i = 0; i < stream_count; ++i) {
        add_value(text, std::string("stream_packets_total{stream=\"") + stream_names[i] + "\"}",
                  static_cast<double>(view.streams[i].packets));
    }
    describe(text, "stream_bytes_total", "counter", "Bytes of content in them.");
    for (size_t i = 0; i < stream_count; ++i) {
        add_value(text, std::string("stream_bytes_total{stream=\"") + stream_names[i] + "\"}",
                  static_cast<double>(view.streams[i].bytes));
    }
}

static void add_services(std::string &text, const StatusRecord &status) {
    describe(text, "service_enabled", "gauge", "Services that are switched on.");
    const std::pair<const char *, bool> services[] = {
        {"recording", status.is_recording},
        {"udp", status.udp},
        {"rtmp", status.rtmp},
        {"srt", status.srt},
        {"rtsp", status.rtsp},
    };
    for (const auto &[name, is_on] : services) {
        add_value(text, std::string("service_enabled{service=\"") + name + "\"}", is_on ? 1 : 0);
    }
    describe(text, "link_up", "gauge", "Networks of the board that are up.");
    const std::pair<const char *, bool> links[] = {
        {"access_point", status.access_point},
        {"wifi", status.wifi},
        {"camera", status.camera_network},
    };
    for (const auto &[name, is_up] : links) {
        add_value(text, std::string("link_up{link=\"") + name + "\"}", is_up ? 1 : 0);
    }
}

static void add_measured(std::string &text, const BoardView &view) {
    if (const std::optional<int> degrees = temperature(view)) {
        add_one(text, "temperature_celsius", "gauge", "Temperature of the board's processor.",
                *degrees);
    }
    const int place = view.status->storage_place;
    const std::optional<double> bytes = free_bytes(view);
    if (bytes && (place == 1 || place == 2)) {
        describe(text, "storage_free_bytes", "gauge", "Free space where recordings go.");
        add_value(text,
                  std::string("storage_free_bytes{place=\"") +
                      (place == 1 ? "internal" : "external") + "\"}",
                  *bytes);
    }
}

static void add_status(std::string &text, const StatusRecord &status) {
    add_one(text, "clients", "gauge", "Clients that are registered with the daemon.",
            status.client_count);
    describe(text, "source_present", "gauge", "Sources on the board that send.");
    add_value(text, "source_present{source=\"data\"}", status.data_source ? 1 : 0);
    add_value(text, "source_present{source=\"video\"}", status.video ? 1 : 0);
    add_services(text, status);
    add_one(text, "movement_running", "gauge", "An automatic movement is being played.",
            status.movement_running ? 1 : 0);
    describe(text, "daemon_info", "gauge", "The daemon's version.");
    char version[60];
    snprintf(version, sizeof version, "daemon_info{version=\"%u.%u.%u\"}", status.version[0],
             status.version[1], status.version[2]);
    add_value(text, version, 1);
}

std::string metrics_text(const BoardView &view, int viewers, uint64_t dropped, TimePoint now) {
    std::string text;
    add_one(text, "up", "gauge", "The daemon answers.", is_present(view, now) ? 1 : 0);
    add_streams(text, view);
    add_one(text, "lost_packets_total", "counter", "Packets whose numbers never came.",
            static_cast<double>(view.most_lost));
    add_one(text, "pictures_total", "counter", "Pictures that browsers could be shown.",
            static_cast<double>(view.pictures));
    add_one(text, "pictures_dropped_total", "counter",
            "Pictures after a loss, up to the next key picture.", static_cast<double>(dropped));
    add_one(text, "console_viewers", "gauge", "Browsers that are connected to this console.",
            viewers);
    if (view.status) {
        add_one(text, "status_age_seconds", "gauge", "Seconds since the last status record.",
                seconds_between(view.status_at, now));
        add_measured(text, view);
        add_status(text, *view.status);
    }
    return text;
}
