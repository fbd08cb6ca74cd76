#include "report.h"

#include "ranges.h"

#include <cmath>
#include <cstdio>
#include <string>

constexpr size_t name_size = 128;
constexpr double least_shown_instructions = 1;

const std::vector<LoadResult> &of(const CaseSamples &samples, SubjectKind kind) {
    return samples.of[static_cast<int>(kind)];
}

double instructions_of(const std::vector<FunctionCost> &functions) {
    double sum = 0;
    for (const FunctionCost &function : functions) {
        sum += function.instructions;
    }
    return sum;
}

const char *name_of(const Case &what, char *text, size_t size) {
    const Load &load = what.load;
    const char *plural = what.clients == 1 ? "" : "s";
    if (load.kind == LoadKind::video) {
        snprintf(text, size, "video, %.0f Mbit/s, %.0f frames/s, %d client%s",
                 load.rate * load.size * 8 / 1e6, load.rate, what.clients, plural);
    } else {
        snprintf(text, size, "data, %.0f/s of %u bytes, %d client%s", load.rate, load.size,
                 what.clients, plural);
    }
    return text;
}

// The fraction of the processor time that was system time, over all rounds; see CpuTime.
static double system_part(const std::vector<LoadResult> &results) {
    double user = 0;
    double system = 0;
    for (const LoadResult &result : results) {
        user += result.cpu_each.user_us * static_cast<double>(result.delivered);
        system += result.cpu_each.system_us * static_cast<double>(result.delivered);
    }
    return user + system > 0 ? system / (user + system) : NAN;
}

static std::string instructions_text(const std::vector<LoadResult> &results) {
    const Range user =
        range_of(results, [](const LoadResult &r) { return r.instructions_each.user; });
    const Range kernel =
        range_of(results, [](const LoadResult &r) { return r.instructions_each.kernel; });
    char text[64];
    snprintf(text, sizeof text, "%.0f + %.0f", user.median, kernel.median);
    return std::isnan(user.median) || std::isnan(kernel.median) ? "-" : text;
}

static void print_row(const char *what, const char *who, const std::vector<LoadResult> &results) {
    uint64_t delivered = 0;
    uint64_t lost = 0;
    for (const LoadResult &result : results) {
        delivered += result.delivered;
        lost += result.lost;
    }
    const Range cpu = range_of(results, cpu_us);
    const double in_system = system_part(results) * cpu.median;
    const Range p99 = range_of(results, [](const LoadResult &r) { return r.p99_ms; });
    const Range whole = range_of(results, [](const LoadResult &r) { return r.whole_p50_ms; });
    printf("| %s | %s | %llu | %llu | %s | %.1f | %.1f | %s | %s | %.2f | %.2f |\n", what, who,
           static_cast<unsigned long long>(delivered), static_cast<unsigned long long>(lost),
           text_of(cpu, 2).c_str(), cpu.median - in_system, in_system,
           instructions_text(results).c_str(), text_of(range_of(results, p50_ms), 3).c_str(),
           p99.median, whole.median);
}

static void print_loads(const Samples &samples) {
    puts("| load | relay | delivered | lost | CPU us per delivered datagram | user | system | "
         "instructions, user + kernel | p50 ms | p99 ms | whole p50 ms |");
    puts("|---|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|");
    char what[name_size];
    for (const CaseSamples &measured : samples.cases) {
        for (int kind = 0; kind < subject_kinds; ++kind) {
            if (!measured.of[kind].empty()) {
                print_row(name_of(measured.what, what, sizeof what),
                          subject_name(static_cast<SubjectKind>(kind)), measured.of[kind]);
            }
        }
    }
    if (!samples.with_stalled_viewer.empty()) {
        print_row("the last one, and a TCP viewer that does not read", "daemon",
                  samples.with_stalled_viewer);
    }
}

static void print_rates(const Samples &samples) {
    printf("| highest loss-free rate, %u bytes to ten clients | datagrams/s in | sent/s |\n",
           samples.rate_load.size);
    puts("|---|--:|--:|");
    for (int kind = 0; kind < subject_kinds; ++kind) {
        const Range rate = range_of(samples.highest_rate[kind]);
        if (!std::isnan(rate.median)) {
            printf("| %s | %s | %.0f |\n", subject_name(static_cast<SubjectKind>(kind)),
                   text_of(rate, 0).c_str(), rate.median * (most_clients + 1));
        }
    }
}

static void print_searching(const std::vector<SearchSample> &samples) {
    std::vector<double> daemon;
    std::vector<double> all;
    for (const SearchSample &sample : samples) {
        daemon.push_back(sample.daemon * 100);
        all.push_back(sample.with_commands * 100);
    }
    printf("| daemon that searches for storage | %s |\n", text_of(range_of(daemon), 2).c_str());
    printf("| daemon that searches for storage, with the commands it runs | %s |\n",
           text_of(range_of(all), 2).c_str());
}

static void print_idle(const Samples &samples) {
    puts("| with no traffic, ten clients | % of a core |");
    puts("|---|--:|");
    for (int kind = 0; kind < subject_kinds; ++kind) {
        const Range share = range_of(samples.idle_share[kind]);
        if (!std::isnan(share.median)) {
            const Range percent = {share.median * 100, share.low * 100, share.high * 100};
            printf("| %s | %s |\n", subject_name(static_cast<SubjectKind>(kind)),
                   text_of(percent, 2).c_str());
        }
    }
    print_searching(samples.searching);
}

static void print_burst(const BurstSample &sample) {
    const BurstResult &result = sample.result;
    printf("| %u | %d | %d | %s | %u of %u | %u | %s | %s | %.2f | %s |\n", sample.what.size,
           sample.what.clients, sample.what.work_us, subject_name(sample.kind), result.whole,
           result.frames, result.disturbed, text_of(result.p50_ms, 2).c_str(),
           text_of(result.p99_ms, 2).c_str(), result.cpu_us,
           text_of(result.sound_p99_ms, 2).c_str());
}

static void print_bursts(const Samples &samples) {
    puts("| frame bytes | clients | us between two looks | relay | whole at the worst client | "
         "disturbed | "
         "p50 ms | p99 ms | CPU us per datagram | sound p99 ms |");
    puts("|--:|--:|--:|---|--:|--:|--:|--:|--:|--:|");
    for (const BurstSample &sample : samples.bursts) {
        print_burst(sample);
    }
    for (const BurstSample &sample : samples.long_bursts) {
        print_burst(sample);
    }
}

static void print_slow_link(const Samples &samples) {
    puts("| nine clients beside one behind 1 kbit/s | |");
    puts("|---|--:|");
    printf("| status records a second | %s |\n",
           text_of(samples.slow_link.status_a_second, 1).c_str());
    printf("| part of the video delivered | %s |\n",
           text_of(samples.slow_link.part_delivered, 3).c_str());
}

static double instructions_in(const std::vector<FunctionCost> &functions, const std::string &name) {
    for (const FunctionCost &function : functions) {
        if (function.name == name) {
            return function.instructions;
        }
    }
    return 0;
}

// With one client, a datagram is a block.
static void print_traced(const Samples &samples) {
    if (samples.traced.one_client.empty()) {
        return;
    }
    puts("| user instructions per delivered datagram of video | 1 client | 10 clients |");
    puts("|---|--:|--:|");
    const auto &ten_clients = samples.traced.ten_clients;
    double rest = instructions_of(samples.traced.one_client);
    double rest_of_ten = instructions_of(ten_clients);
    for (const FunctionCost &function : samples.traced.one_client) {
        if (function.instructions < least_shown_instructions) {
            break;
        }
        const double of_ten = instructions_in(ten_clients, function.name);
        printf("| %s | %.1f | %.1f |\n", function.name.c_str(), function.instructions, of_ten);
        rest -= function.instructions;
        rest_of_ten -= of_ten;
    }
    printf("| others | %.1f | %.1f |\n| all | %.1f | %.1f |\n", rest, rest_of_ten,
           instructions_of(samples.traced.one_client), instructions_of(ten_clients));
}

void print_tables(const Samples &samples) {
    for (const auto print :
         {print_loads, print_rates, print_idle, print_bursts, print_slow_link, print_traced}) {
        print(samples);
        puts("");
    }
}
