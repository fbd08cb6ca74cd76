#include "report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>

constexpr double least_rate_ratio = 8.0;
constexpr double most_cpu_ratio = 1.9;
constexpr double most_p50_above_floor_ms = 2.0;
constexpr double most_idle_percent = 1.5;
constexpr double most_private_mb = 12.0;
constexpr double megabyte = 1024.0 * 1024.0;

struct Range {
    double median;
    double low;
    double high;
};

static Range range_of(std::vector<double> values) {
    if (values.empty()) {
        return {NAN, NAN, NAN};
    }
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    const double median =
        values.size() % 2 != 0 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
    return {median, values.front(), values.back()};
}

static std::string text_of(const Range &range, int decimals) {
    char text[96];
    snprintf(text, sizeof text, "%.*f (%.*f to %.*f)", decimals, range.median, decimals, range.low,
             decimals, range.high);
    return text;
}

// The range over the rounds of one number of each result.
template <typename Number>
static Range range_of(const std::vector<LoadResult> &results, Number number) {
    std::vector<double> values;
    values.reserve(results.size());
    for (const LoadResult &result : results) {
        values.push_back(number(result));
    }
    return range_of(values);
}

// The range over the rounds of one number of two subjects put together.
template <typename Number, typename Join>
static Range paired(const std::vector<LoadResult> &left, const std::vector<LoadResult> &right,
                    Number number, Join join) {
    std::vector<double> values;
    for (size_t i = 0; i < std::min(left.size(), right.size()); ++i) {
        values.push_back(join(number(left[i]), number(right[i])));
    }
    return range_of(values);
}

static double ratio(double left, double right) {
    return left / right;
}

static double difference(double left, double right) {
    return left - right;
}

static double cpu_us(const LoadResult &result) {
    return result.cpu_each.total_us;
}

static double p50_ms(const LoadResult &result) {
    return result.p50_ms;
}

static const std::vector<LoadResult> &of(const CaseSamples &samples, SubjectKind kind) {
    return samples.of[static_cast<int>(kind)];
}

template <typename Number>
static uint64_t sum_of(const std::vector<LoadResult> &results, Number number) {
    uint64_t sum = 0;
    for (const LoadResult &result : results) {
        sum += number(result);
    }
    return sum;
}

static uint64_t delivered_of(const std::vector<LoadResult> &results) {
    return sum_of(results, [](const LoadResult &result) { return result.delivered; });
}

// The part of the processor time that was system time, over all rounds: see CpuTime.
static double system_part(const std::vector<LoadResult> &results) {
    double user = 0;
    double system = 0;
    for (const LoadResult &result : results) {
        user += result.cpu_each.user_us * static_cast<double>(result.delivered);
        system += result.cpu_each.system_us * static_cast<double>(result.delivered);
    }
    return user + system > 0 ? system / (user + system) : NAN;
}

static std::string text_of(const Case &what) {
    const Load &load = what.load;
    char text[128];
    if (load.kind == LoadKind::video) {
        snprintf(text, sizeof text, "video, %.0f Mbit/s, %.0f frames/s, %d client%s",
                 load.rate * load.size * 8 / 1e6, load.rate, what.clients,
                 what.clients == 1 ? "" : "s");
    } else {
        snprintf(text, sizeof text, "data, %.0f/s of %u bytes, %d client%s", load.rate, load.size,
                 what.clients, what.clients == 1 ? "" : "s");
    }
    return text;
}

static void print_row(const Case &what, SubjectKind kind, const std::vector<LoadResult> &results) {
    const uint64_t delivered = delivered_of(results);
    const uint64_t lost = sum_of(results, [](const LoadResult &r) { return r.lost; });
    const Range cpu = range_of(results, cpu_us);
    const double in_system = system_part(results) * cpu.median;
    const Range p50 = range_of(results, p50_ms);
    const Range p99 = range_of(results, [](const LoadResult &r) { return r.p99_ms; });
    const Range whole = range_of(results, [](const LoadResult &r) { return r.whole_p50_ms; });
    printf("| %s | %s | %llu | %llu | %s | %.1f | %.1f | %s | %.2f | %.2f |\n",
           text_of(what).c_str(), subject_name(kind), static_cast<unsigned long long>(delivered),
           static_cast<unsigned long long>(lost), text_of(cpu, 2).c_str(), cpu.median - in_system,
           in_system, text_of(p50, 3).c_str(), p99.median, whole.median);
}

static void print_loads(const Samples &samples) {
    puts("| load | relay | delivered | lost | CPU us per delivered datagram | user | system | "
         "p50 ms | p99 ms | whole p50 ms |");
    puts("|---|---|--:|--:|--:|--:|--:|--:|--:|--:|");
    for (const CaseSamples &measured : samples.cases) {
        for (int kind = 0; kind < subject_kinds; ++kind) {
            print_row(measured.what, static_cast<SubjectKind>(kind), measured.of[kind]);
        }
    }
}

static void print_rates(const Samples &samples) {
    printf("| highest loss-free rate, %u bytes to ten clients | datagrams/s in | sent/s |\n",
           samples.rate_load.size);
    puts("|---|--:|--:|");
    for (int kind = 0; kind < subject_kinds; ++kind) {
        const Range rate = range_of(samples.highest_rate[kind]);
        printf("| %s | %s | %.0f |\n", subject_name(static_cast<SubjectKind>(kind)),
               text_of(rate, 0).c_str(), rate.median * (most_clients + 1));
    }
}

static Range idle_percent(const Samples &samples, SubjectKind kind) {
    std::vector<double> shares = samples.idle_share[static_cast<int>(kind)];
    for (double &share : shares) {
        share *= 100;
    }
    return range_of(shares);
}

static void print_idle(const Samples &samples) {
    puts("| with no traffic, ten clients | % of a core |");
    puts("|---|--:|");
    for (int kind = 0; kind < subject_kinds; ++kind) {
        printf("| %s | %s |\n", subject_name(static_cast<SubjectKind>(kind)),
               text_of(idle_percent(samples, static_cast<SubjectKind>(kind)), 2).c_str());
    }
}

void print_tables(const Samples &samples) {
    print_loads(samples);
    puts("");
    print_rates(samples);
    puts("");
    print_idle(samples);
}

// Prints a target's row and returns 1 when it was missed.
static int print_target(const char *what, const char *wanted, const std::string &measured,
                        bool reached) {
    printf("| %s | %s | %s | %s |\n", what, wanted, measured.c_str(), reached ? "yes" : "**no**");
    return reached ? 0 : 1;
}

static int print_rate_target(const Samples &samples) {
    const auto &daemon = samples.highest_rate[static_cast<int>(SubjectKind::daemon)];
    const auto &plain = samples.highest_rate[static_cast<int>(SubjectKind::plain)];
    std::vector<double> ratios;
    for (size_t i = 0; i < std::min(daemon.size(), plain.size()); ++i) {
        ratios.push_back(daemon[i] / plain[i]);
    }
    const Range range = range_of(ratios);
    return print_target("highest loss-free rate to ten clients, times plain's", "at least 8",
                        text_of(range, 1), range.median >= least_rate_ratio);
}

static int print_cpu_target(const CaseSamples &samples) {
    const Range range =
        paired(of(samples, SubjectKind::daemon), of(samples, SubjectKind::floor), cpu_us, ratio);
    const std::string what = text_of(samples.what) + ": CPU per delivered datagram, times floor's";
    return print_target(what.c_str(), "at most 1.9", text_of(range, 2),
                        range.median <= most_cpu_ratio);
}

static int print_video_targets(const CaseSamples &samples) {
    const auto &daemon = of(samples, SubjectKind::daemon);
    const uint64_t frames =
        sum_of(daemon, [](const LoadResult &result) { return result.items_lost; });
    const Range above = paired(daemon, of(samples, SubjectKind::floor), p50_ms, difference);
    const std::string what = text_of(samples.what);
    return print_target((what + ": frames lost").c_str(), "0", std::to_string(frames),
                        frames == 0) +
           print_target((what + ": p50 ms above floor's").c_str(), "at most 2.0", text_of(above, 2),
                        above.median <= most_p50_above_floor_ms);
}

static int print_process_targets(const Samples &samples) {
    char memory[32];
    const Range idle = idle_percent(samples, SubjectKind::daemon);
    const double private_mb = static_cast<double>(samples.private_bytes) / megabyte;
    snprintf(memory, sizeof memory, "%.1f MB", private_mb);
    return print_target("CPU with no traffic, ten clients, of one core", "under 1.5 %",
                        text_of(idle, 2) + " %", idle.median < most_idle_percent) +
           print_target("private memory beyond the rings", "under 12 MB", memory,
                        samples.private_bytes > 0 && private_mb < most_private_mb);
}

static int print_integrity(const Samples &samples) {
    uint64_t spoiled = 0;
    for (const CaseSamples &measured : samples.cases) {
        spoiled += sum_of(of(measured, SubjectKind::daemon),
                          [](const LoadResult &result) { return result.spoiled; });
    }
    return print_target("datagrams with a wrong byte, length, sender or number", "0",
                        std::to_string(spoiled), spoiled == 0);
}

int print_targets(const Samples &samples, const TargetCases &which) {
    puts("| target | wanted | measured | reached |");
    puts("|---|--:|--:|---|");
    return print_rate_target(samples) + print_cpu_target(samples.cases[which.data]) +
           print_cpu_target(samples.cases[which.video]) +
           print_video_targets(samples.cases[which.video]) + print_process_targets(samples) +
           print_integrity(samples);
}
