#include "targets.h"

#include "ranges.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>

constexpr double least_rate_of_limit = 0.85;
constexpr double most_cpu_of_limit = 1.2;
constexpr double most_p50_of_limit = 1.35;
constexpr double most_idle_of_limit = 2.0; // which only polls its ring
constexpr double most_searching_percent = 2.5;
constexpr double most_private_mb = 1.0;
constexpr double most_sound_ms = 3.0;
constexpr double least_status_a_second = 8.0;
constexpr double least_part_beside_slow_link = 0.5;
constexpr double most_instructions = 300;
// The daemon gives each datagram of a round 2 us, and on a fast machine spends a part of them
// waiting. It cannot do better than its own pace, nor use less of the processor than that.
constexpr double pace_us = 2.0;
constexpr double most_cpu_us_of_pace = 1.2 * pace_us;
constexpr int rate_receivers = 11; // ten clients and the display process
constexpr double least_rate_of_pace = 0.95 * 1e6 / (rate_receivers * pace_us);
constexpr double megabyte = 1024.0 * 1024.0;
constexpr size_t text_size = 192;

// Prints a row and returns 1 when the target was missed.
static int print_target(const std::string &what, const std::string &wanted,
                        const std::string &measured, bool reached) {
    printf("| %s | %s | %s | %s |\n", what.c_str(), wanted.c_str(), measured.c_str(),
           reached ? "yes" : "**no**");
    return reached ? 0 : 1;
}

static void print_unmeasured(const char *what, const char *wanted) {
    printf("| %s | %s | - | not measured |\n", what, wanted);
}

static int print_most(const std::string &what, double most, const Range &measured) {
    return print_target(what, "at most " + text_of(most, 2), text_of(measured, 2),
                        measured.median <= most);
}

// A rate is also high enough when it is the pace's own.
static int print_rate_target(const std::string &other, double least_ratio,
                             const std::vector<double> &daemon, const std::vector<double> &rates) {
    const Range ratio = ratios_of(daemon, rates);
    const Range rate = range_of(daemon);
    return print_target("highest loss-free rate to ten clients, times " + other,
                        "at least " + text_of(least_ratio, 2) + ", or the pace's " +
                            text_of(least_rate_of_pace, 0) + "/s",
                        text_of(ratio, 2) + "; " + text_of(rate.median, 0) + "/s",
                        ratio.median >= least_ratio || rate.median >= least_rate_of_pace);
}

static int print_rate_targets(const Samples &samples) {
    const auto rates = [&](SubjectKind kind) -> const std::vector<double> & {
        return samples.highest_rate[static_cast<int>(kind)];
    };
    const auto &daemon = rates(SubjectKind::daemon);
    int missed =
        print_rate_target("the limit's", least_rate_of_limit, daemon, rates(SubjectKind::limit));
    if (!rates(SubjectKind::gstreamer).empty()) {
        missed += print_rate_target("GStreamer's", 1, daemon, rates(SubjectKind::gstreamer));
    }
    return missed;
}

// The use of the processor is also low enough when it is the pace's own.
static int print_cpu_target(const std::string &what, double most_ratio,
                            const std::vector<double> &daemon, const std::vector<double> &other) {
    const Range ratio = ratios_of(daemon, other);
    const Range cpu = range_of(daemon);
    return print_target(what,
                        "at most " + text_of(most_ratio, 2) + ", or the pace's " +
                            text_of(most_cpu_us_of_pace, 2) + " us",
                        text_of(ratio, 2) + "; " + text_of(cpu.median, 2) + " us",
                        ratio.median <= most_ratio || cpu.median <= most_cpu_us_of_pace);
}

// What the daemon uses apart from looking into its ring, which GStreamer does not do. A relay that
// does only that, `limit`, shows what it costs.
static std::vector<double> cpu_without_polling(const std::vector<LoadResult> &daemon,
                                               const std::vector<double> &polling_share) {
    const double share = range_of(polling_share).median;
    std::vector<double> cpu;
    cpu.reserve(daemon.size());
    for (const LoadResult &result : daemon) {
        const double each_us = 1e6 * result.seconds / static_cast<double>(result.delivered);
        cpu.push_back(cpu_us(result) - share * each_us);
    }
    return cpu;
}

static int print_cpu_targets(const Samples &all, const CaseSamples &samples) {
    char name[text_size];
    const std::string what =
        std::string(name_of(samples.what, name, sizeof name)) + ": CPU per delivered datagram";
    const auto &daemon = of(samples, SubjectKind::daemon);
    int missed = print_cpu_target(what + ", times the limit's", most_cpu_of_limit,
                                  numbers_of(daemon, cpu_us),
                                  numbers_of(of(samples, SubjectKind::limit), cpu_us));
    const auto &gstreamer = of(samples, SubjectKind::gstreamer);
    if (!gstreamer.empty()) {
        const auto &polling = all.idle_share[static_cast<int>(SubjectKind::limit)];
        missed +=
            print_cpu_target(what + " without looking into the ring, times GStreamer's", 1,
                             cpu_without_polling(daemon, polling), numbers_of(gstreamer, cpu_us));
    }
    return missed;
}

static uint64_t frames_lost(const std::vector<LoadResult> &results) {
    uint64_t lost = 0;
    for (const LoadResult &result : results) {
        lost += result.items_lost;
    }
    return lost;
}

static int print_video_targets(const Samples &samples, const CaseSamples &video) {
    char name[text_size];
    const std::string what = name_of(video.what, name, sizeof name);
    const uint64_t lost = frames_lost(of(video, SubjectKind::daemon));
    const uint64_t lost_beside = frames_lost(samples.with_stalled_viewer);
    return print_target(what + ": frames lost", "0", std::to_string(lost), lost == 0) +
           print_target(what + " and a TCP viewer that does not read: frames lost", "0",
                        std::to_string(lost_beside), lost_beside == 0) +
           print_most(
               what + ": p50, times the limit's", most_p50_of_limit,
               ratios_of(of(video, SubjectKind::daemon), of(video, SubjectKind::limit), p50_ms));
}

static int print_burst_target(const BurstSample &sample) {
    char what[text_size];
    snprintf(what, sizeof what, "frames of %u bytes, %d client%s with default buffers, %d us",
             sample.what.size, sample.what.clients, sample.what.clients == 1 ? "" : "s",
             sample.what.work_us);
    const BurstResult &result = sample.result;
    return print_target(std::string(what) + ": whole at every client",
                        std::to_string(result.frames), std::to_string(result.whole),
                        result.whole == result.frames && result.frames > result.disturbed) +
           print_target(std::string(what) + ": sound's p99", "under 3 ms",
                        text_of(result.sound_p99_ms, 2) + " ms",
                        result.sound_p99_ms < most_sound_ms);
}

static int print_slow_link_targets(const SlowLinkResult &result) {
    const char *status = "status records a second beside a client behind 1 kbit/s";
    const char *video = "part of the video delivered beside it";
    if (!result.is_measured) {
        print_unmeasured(status, "at least 8");
        return 0;
    }
    return print_target(status, "at least 8", text_of(result.status_a_second, 1),
                        result.status_a_second >= least_status_a_second) +
           print_target(video, "at least 0.5", text_of(result.part_delivered, 3),
                        result.part_delivered >= least_part_beside_slow_link);
}

static int print_traced_target(const TracedResult &result) {
    const char *what = "user instructions per delivered datagram of video";
    if (result.one_client.empty() || result.ten_clients.empty()) {
        print_unmeasured(what, "under 300");
        return 0;
    }
    const double one = instructions_of(result.one_client);
    const double ten = instructions_of(result.ten_clients);
    return print_target(what, "under 300",
                        text_of(one, 0) + " to one client, " + text_of(ten, 0) + " to ten",
                        std::max(one, ten) < most_instructions);
}

static int print_process_targets(const Samples &samples) {
    const Range idle = ratios_of(samples.idle_share[static_cast<int>(SubjectKind::daemon)],
                                 samples.idle_share[static_cast<int>(SubjectKind::limit)]);
    std::vector<double> searching;
    for (const SearchSample &sample : samples.searching) {
        searching.push_back(sample.daemon * 100);
    }
    const Range search = range_of(searching);
    const double private_mb = static_cast<double>(samples.private_bytes) / megabyte;
    return print_most("CPU with no traffic, ten clients, times the limit's", most_idle_of_limit,
                      idle) +
           print_target("CPU with no traffic while it searches for storage, without the commands' "
                        "own",
                        "at most 2.5 %", text_of(search, 2) + " %",
                        search.median <= most_searching_percent) +
           print_target("private memory beyond the rings and the TCP queue", "under 1 MB",
                        text_of(private_mb, 2) + " MB",
                        samples.private_bytes > 0 && private_mb < most_private_mb);
}

static int print_integrity(const Samples &samples) {
    uint64_t spoiled = 0;
    for (const CaseSamples &measured : samples.cases) {
        for (const LoadResult &result : of(measured, SubjectKind::daemon)) {
            spoiled += result.spoiled;
        }
    }
    return print_target("datagrams with a wrong byte, length, sender or number", "0",
                        std::to_string(spoiled), spoiled == 0);
}

int print_targets(const Samples &samples, const TargetCases &which) {
    puts("| target | wanted | measured | reached |");
    puts("|---|--:|--:|---|");
    int missed = print_rate_targets(samples) +
                 print_cpu_targets(samples, samples.cases[which.data]) +
                 print_cpu_targets(samples, samples.cases[which.video]) +
                 print_video_targets(samples, samples.cases[which.video]);
    for (const BurstSample &sample : samples.long_bursts) {
        missed += print_burst_target(sample);
    }
    return missed + print_slow_link_targets(samples.slow_link) +
           print_traced_target(samples.traced) + print_process_targets(samples) +
           print_integrity(samples);
}
