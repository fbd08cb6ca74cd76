// How fast the daemon relays, beside two relays reduced to their sending that do the same work in
// the same run. Runs on a board, as root; see script/bench.

#include "machine.h"
#include "media/frame_ring_layout.h"
#include "net/relay_packet.h"
#include "pauses.h"
#include "report.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

// What is run and for how long.
struct Plan {
    const char *daemon_path;
    int rounds;          // of each load
    int rate_rounds;     // of the search for the highest rate
    double seconds;      // of each load
    double rate_seconds; // of each step of the search
    unsigned idle_seconds;
    Load data;
    Load video;
    bool check;
};

constexpr Plan full_plan = {
    nullptr, 5, 3, 1.5, 0.5, 5, {LoadKind::data, 1000, 1300}, {LoadKind::video, 60, 125000}, false};
constexpr Plan quick_plan = {
    nullptr, 1, 1, 0.8, 0.3, 3, {LoadKind::data, 1000, 1300}, {LoadKind::video, 60, 125000}, false};
constexpr TargetCases target_cases = {1, 3};

constexpr unsigned burst_datagrams = 100;
constexpr int search_steps = 6;
constexpr int attempts = 2;        // at a rate before it counts as too high
constexpr double behind_ms = 20.0; // a relay that ends later than this does not keep up

// A subject with its wire, connected.
struct Bench {
    Subject subject;
    Wire wire;
};

static Bench set_up(const Plan &plan, SubjectKind kind, int clients) {
    Bench bench{start_subject(kind, plan.daemon_path, clients), open_wire(clients)};
    if (!connect_wire(bench.wire, bench.subject)) {
        fprintf(stderr, "relay_bench: %s does not relay\n", subject_name(kind));
        stop_subject(bench.subject);
        exit(EXIT_FAILURE);
    }
    return bench;
}

static void tear_down(Bench &bench) {
    stop_subject(bench.subject);
    close_wire(bench.wire);
}

static void report_run(const char *what, SubjectKind kind, const LoadResult &result) {
    fprintf(stderr,
            "%-5s %-6s delivered %llu lost %llu spoiled %llu, %.2f us each (%.2f user %.2f "
            "system), p50 %.3f ms p99 %.3f ms whole p50 %.3f ms, drained %.1f ms, generator late "
            "%.1f ms\n",
            what, subject_name(kind), static_cast<unsigned long long>(result.delivered),
            static_cast<unsigned long long>(result.lost),
            static_cast<unsigned long long>(result.spoiled), result.cpu_each.total_us,
            result.cpu_each.user_us, result.cpu_each.system_us, result.p50_ms, result.p99_ms,
            result.whole_p50_ms, result.drain_ms, result.late_ms);
}

static void measure(const Plan &plan, SubjectKind kind, Samples &samples, CaseSamples &into) {
    const Case &what = into.what;
    Bench bench = set_up(plan, kind, what.clients);
    const LoadResult result = run_load(bench.wire, bench.subject, what.load, plan.seconds);
    report_run(what.load.kind == LoadKind::video ? "video" : "data", kind, result);
    into.of[static_cast<int>(kind)].push_back(result);
    if (kind == SubjectKind::daemon) {
        samples.private_bytes =
            std::max(samples.private_bytes, private_bytes_beyond_rings(bench.subject));
    }
    tear_down(bench);
}

static bool keeps_up(const Plan &plan, Bench &bench, const Load &load) {
    for (int attempt = 0; attempt < attempts; ++attempt) {
        connect_wire(bench.wire, bench.subject);
        const LoadResult result = run_load(bench.wire, bench.subject, load, plan.rate_seconds);
        if (result.lost == 0 && result.spoiled == 0 && result.drain_ms <= behind_ms) {
            return true;
        }
    }
    return false;
}

// Halves the span around the rate at which a burst leaves, and goes below it where need be.
static double highest_rate(const Plan &plan, SubjectKind kind) {
    Bench bench = set_up(plan, kind, most_clients);
    const double burst = burst_rate(bench.wire, plan.data, burst_datagrams);
    double low = burst * 0.6;
    double high = burst * 1.3;
    double found = 0;
    for (int step = 0; step < search_steps || (found == 0 && low > 1); ++step) {
        Load load = plan.data;
        load.rate = (low + high) / 2;
        const bool passed = keeps_up(plan, bench, load);
        (passed ? low : high) = load.rate;
        found = passed ? load.rate : found;
        low = step >= search_steps && !passed ? low / 2 : low;
    }
    tear_down(bench);
    fprintf(stderr, "rate  %-6s %.0f/s (a burst leaves at %.0f/s)\n", subject_name(kind), found,
            burst);
    return found;
}

// The share of one core that a relay uses with ten clients and nothing to relay.
static double idle_share(const Plan &plan, SubjectKind kind) {
    Bench bench = set_up(plan, kind, most_clients);
    const int64_t start_ns = monotonic_ns();
    const CpuTime before = cpu_time(bench.subject);
    sleep(plan.idle_seconds);
    const CpuTime after = cpu_time(bench.subject);
    const double elapsed_us = static_cast<double>(monotonic_ns() - start_ns) / 1e3;
    tear_down(bench);
    const double share = (after.total_us - before.total_us) / elapsed_us;
    fprintf(stderr, "idle  %-6s %.2f %% of a core\n", subject_name(kind), share * 100);
    return share;
}

static Samples measure_all(const Plan &plan) {
    Samples samples{};
    samples.rate_load = plan.data;
    for (const Load &load : {plan.data, plan.video}) {
        for (const int clients : {1, most_clients}) {
            samples.cases.push_back({{load, clients}, {}});
        }
    }
    constexpr SubjectKind kinds[] = {SubjectKind::daemon, SubjectKind::plain, SubjectKind::floor};
    for (int round = 0; round < plan.rounds; ++round) {
        for (CaseSamples &into : samples.cases) {
            for (const SubjectKind kind : kinds) {
                measure(plan, kind, samples, into);
            }
        }
    }
    for (int round = 0; round < plan.rate_rounds; ++round) {
        for (const SubjectKind kind : kinds) {
            samples.highest_rate[static_cast<int>(kind)].push_back(highest_rate(plan, kind));
        }
    }
    for (int round = 0; round < plan.rounds; ++round) {
        for (const SubjectKind kind : kinds) {
            samples.idle_share[static_cast<int>(kind)].push_back(idle_share(plan, kind));
        }
    }
    return samples;
}

static int usage() {
    fputs("usage: relay_bench [--quick] [--check] [--data RATE BYTES] [--video FRAMES BYTES] "
          "DAEMON\n"
          "  --quick   one round of everything\n"
          "  --check   status 1 when a target is missed\n"
          "  --data    datagrams a second into port 5000 and the size of each\n"
          "  --video   frames a second into the ring and the size of each\n",
          stderr);
    return 2;
}

static bool is_possible(const Load &load) {
    const bool is_video = load.kind == LoadKind::video;
    // Every block has room for its header, the last one of a frame too.
    const uint32_t last = is_video ? (load.size - 1) % relay_video_block_size + 1 : load.size;
    return load.rate > 0 && last >= block_header_size &&
           load.size <= (is_video ? main_frame_capacity : largest_block);
}

static bool read_arguments(int count, char **arguments, Plan &plan) {
    for (int i = 1; i < count; ++i) {
        if (strcmp(arguments[i], "--quick") == 0) {
            plan = quick_plan;
        }
    }
    for (int i = 1; i < count; ++i) {
        const char *argument = arguments[i];
        const bool is_data = strcmp(argument, "--data") == 0;
        if (strcmp(argument, "--check") == 0) {
            plan.check = true;
        } else if ((is_data || strcmp(argument, "--video") == 0) && i + 2 < count) {
            Load &load = is_data ? plan.data : plan.video;
            load.rate = strtod(arguments[++i], nullptr);
            load.size = static_cast<uint32_t>(strtoul(arguments[++i], nullptr, 10));
        } else if (argument[0] != '-') {
            plan.daemon_path = argument;
        } else if (strcmp(argument, "--quick") != 0) {
            return false;
        }
    }
    return plan.daemon_path != nullptr && is_possible(plan.data) && is_possible(plan.video);
}

int main(int count, char **arguments) {
    Plan plan = full_plan;
    if (!read_arguments(count, arguments, plan)) {
        return usage();
    }
    if (access("/sys/board", F_OK) != 0) {
        fputs("relay_bench: runs on a board only; use script/bench\n", stderr);
        return 2;
    }
    if (!take_cores()) {
        fputs("relay_bench: needs two cores\n", stderr);
        return 2;
    }
    come_first();
    start_watching_others();
    const Samples samples = measure_all(plan);
    print_tables(samples);
    puts("");
    print_pauses();
    puts("");
    const int missed = print_targets(samples, target_cases);
    printf("\nOther processes took %.1f %% of the machine's processor time meanwhile.\n",
           share_of_others() * 100);
    return plan.check && missed > 0 ? 1 : 0;
}
