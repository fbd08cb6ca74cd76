#include "beaconctl/watch_words.h"

#include <cstdio>

std::string duration_text(double seconds) {
    const auto whole = static_cast<long long>(seconds);
    const long long days = whole / 86400;
    char text[60];
    snprintf(text, sizeof text, "%02lld:%02lld:%02lld", whole / 3600 % 24, whole / 60 % 60,
             whole % 60);
    return (days > 0 ? std::to_string(days) + " d " : "") + text;
}

static std::string megabits_text(double megabits) {
    char text[40];
    snprintf(text, sizeof text, "%.2f Mbit/s", megabits);
    return text;
}

static std::string video_text(const StreamMeter *streams) {
    if (streams == nullptr || !streams->rates) {
        return "-";
    }
    char text[40];
    snprintf(text, sizeof text, "%.1f frames/s, ", streams->rates->pictures);
    return text + megabits_text(streams->rates->video);
}

// The streams beside the video, as far as anything comes.
static std::string others_text(const StreamMeter *streams) {
    if (streams == nullptr || !streams->rates) {
        return "";
    }
    return (streams->rates->audio > 0 ? "; sound " + megabits_text(streams->rates->audio) : "") +
           (streams->rates->camera > 0 ? "; own camera " + megabits_text(streams->rates->camera)
                                       : "");
}

static std::string lost_text(const StreamMeter *streams) {
    return streams == nullptr ? "-" : std::to_string(streams->count.lost) + " packets";
}

StatusWords measured_words(const StreamMeter *streams, const StreamMeter &daemon, TimePoint now) {
    const int restarts = daemon.daemon_restarts;
    return {
        {"Video", video_text(streams) + others_text(streams)},
        {"Lost", lost_text(streams)},
        {"Daemon", "at packet " + std::to_string(daemon.count.expected) + ", seen for " +
                       duration_text(seconds_between(daemon.daemon_since, now)) +
                       (restarts == 0 ? ""
                                      : ", started again " + std::to_string(restarts) +
                                            (restarts == 1 ? " time" : " times"))},
    };
}

std::string measured_line(const StreamMeter *streams) {
    if (streams == nullptr) {
        return "";
    }
    return "; video: " + video_text(streams) + others_text(streams) +
           "; lost: " + lost_text(streams);
}

std::string measured_json(const StreamMeter *streams, const StreamMeter &daemon, TimePoint now) {
    const bool has_rates = streams != nullptr && streams->rates;
    const StreamRates rates = has_rates ? *streams->rates : StreamRates{};
    const auto number = [](bool is_known, double value) {
        char text[40] = "null";
        if (is_known) {
            snprintf(text, sizeof text, "%.3f", value);
        }
        return std::string(text);
    };
    return R"("frames_per_second":)" + number(has_rates, rates.pictures) + R"(,"video_mbits":)" +
           number(has_rates, rates.video) + R"(,"audio_mbits":)" + number(has_rates, rates.audio) +
           R"(,"camera_mbits":)" + number(has_rates, rates.camera) + R"(,"lost":)" +
           (streams == nullptr ? "null" : std::to_string(streams->count.lost)) + R"(,"sequence":)" +
           std::to_string(daemon.count.expected) + R"(,"seen_seconds":)" +
           number(true, seconds_between(daemon.daemon_since, now)) + R"(,"restarts":)" +
           std::to_string(daemon.daemon_restarts);
}
