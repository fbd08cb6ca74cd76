#include "measure.h"

#include "gstreamer.h"
#include "machine.h"
#include "stage.h"
#include "traced.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <unistd.h>

constexpr unsigned burst_datagrams = 100;
constexpr double search_factor = 1.3;
constexpr int search_steps = 5;
constexpr int attempts = 2; // at a rate before it counts as too high
// A relay, or the source, that is later than this does not keep up.
constexpr double behind_ms = 20.0;
constexpr Burst target_burst = {290000, 1, 20}; // and the same with more clients
constexpr double fill_seconds = 2;              // until the viewer takes nothing more

static void measure(const Plan &plan, SubjectKind kind, Samples &samples, CaseSamples &into) {
    const Case &what = into.what;
    Stage stage = set_up(plan.daemon_path, {kind, what.clients, what.load.kind});
    const LoadResult result = run_load(stage.wire, stage.subject, what.load, plan.seconds);
    print_progress(what.load.kind == LoadKind::video ? "video" : "data", kind, result);
    into.of[static_cast<int>(kind)].push_back(result);
    if (kind == SubjectKind::daemon) {
        samples.private_bytes =
            std::max(samples.private_bytes, private_bytes_beyond_rings(stage.subject));
    }
    tear_down(stage);
}

// The same as the last case, beside a TCP viewer that does not read.
static void measure_with_viewer(const Plan &plan, Samples &samples) {
    Stage stage = set_up(plan.daemon_path, {SubjectKind::daemon, most_clients, LoadKind::video});
    const int viewer = connect_stalled_viewer();
    run_load(stage.wire, stage.subject, plan.video, fill_seconds);
    samples.with_stalled_viewer.push_back(
        run_load(stage.wire, stage.subject, plan.video, plan.seconds));
    print_progress("stalled", SubjectKind::daemon, samples.with_stalled_viewer.back());
    close(viewer);
    tear_down(stage);
}

static bool keeps_up(const Plan &plan, Stage &stage, double rate) {
    Load load = plan.data;
    load.rate = rate;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        connect_wire(stage.wire, stage.subject);
        const LoadResult result = run_load(stage.wire, stage.subject, load, plan.rate_seconds);
        if (result.lost == 0 && result.spoiled == 0 &&
            std::max(result.drain_ms, result.late_ms) <= behind_ms) {
            return true;
        }
    }
    return false;
}

// Starts at the rate at which a burst is sent, goes up or down until it is between a rate that
// passes and one that does not, and then closes in.
static double highest_rate(const Plan &plan, SubjectKind kind) {
    Stage stage = set_up(plan.daemon_path, {kind, most_clients, LoadKind::data});
    double high = burst_rate(stage.wire, plan.data, burst_datagrams);
    double low = 0;
    while (keeps_up(plan, stage, high)) {
        low = high;
        high *= search_factor;
    }
    while (low == 0 && high > 1) {
        const double lower = high / search_factor;
        (keeps_up(plan, stage, lower) ? low : high) = lower;
    }
    for (int step = 0; step < search_steps; ++step) {
        const double middle = (low + high) / 2;
        (keeps_up(plan, stage, middle) ? low : high) = middle;
    }
    tear_down(stage);
    fprintf(stderr, "rate    %-9s %.0f/s\n", subject_name(kind), low);
    return low;
}

// The processor time that a relay uses with ten clients and nothing to relay, as shares of a core.
static SearchSample idle_shares(const Plan &plan, SubjectKind kind, DaemonMode mode) {
    Stage stage =
        set_up(plan.daemon_path, {kind, most_clients, LoadKind::data, Buffers::large, mode});
    const int64_t start_ns = monotonic_ns();
    const CpuTime before = cpu_time(stage.subject);
    sleep(plan.idle_seconds);
    const CpuTime after = cpu_time(stage.subject);
    const double elapsed_us = static_cast<double>(monotonic_ns() - start_ns) / 1e3;
    tear_down(stage);
    const double own = (after.total_us - before.total_us) / elapsed_us;
    const double others = (after.ended_children_us - before.ended_children_us) / elapsed_us;
    fprintf(stderr, "idle    %-9s %.2f %% of a core, its commands %.2f %%\n", subject_name(kind),
            own * 100, others * 100);
    return {own, own + others};
}

static void measure_idle(const Plan &plan, Samples &samples) {
    // GStreamer has no ring to look into.
    for (const SubjectKind kind : {SubjectKind::daemon, SubjectKind::plain, SubjectKind::limit}) {
        samples.idle_share[static_cast<int>(kind)].push_back(
            idle_shares(plan, kind, DaemonMode::normal).daemon);
    }
    samples.searching.push_back(
        idle_shares(plan, SubjectKind::daemon, DaemonMode::searching_storage));
}

static BurstSample measure_burst(const Plan &plan, SubjectKind kind, const Burst &burst,
                                 unsigned frames) {
    Stage stage =
        set_up(plan.daemon_path, {kind, burst.clients, LoadKind::video, Buffers::default_ones});
    const BurstResult result = run_burst(stage.wire, stage.subject, burst, frames);
    tear_down(stage);
    fprintf(stderr,
            "burst   %-9s %u bytes, %d clients, %d us: %u of %u whole, %u disturbed, p50 %.2f ms "
            "p99 %.2f ms, "
            "%.2f us each, sound p99 %.2f ms\n",
            subject_name(kind), burst.size, burst.clients, burst.work_us, result.whole,
            result.frames, result.disturbed, result.p50_ms, result.p99_ms, result.cpu_us,
            result.sound_p99_ms);
    return {burst, kind, result};
}

static std::vector<Burst> all_bursts() {
    std::vector<Burst> bursts;
    for (const uint32_t size : {60000U, 125000U, target_burst.size}) {
        for (const int clients : {1, 3}) {
            for (const int work_us : {0, 10, target_burst.work_us, 30}) {
                bursts.push_back({size, clients, work_us});
            }
        }
    }
    return bursts;
}

static bool is_of_target(const Burst &burst) {
    return burst.size == target_burst.size && burst.work_us == target_burst.work_us;
}

static void measure_bursts(const Plan &plan, Samples &samples) {
    keep_subject_core_awake(); // a target is a time, not a ratio
    for (const Burst &burst : all_bursts()) {
        if (plan.all_bursts || is_of_target(burst)) {
            for (const SubjectKind kind : {SubjectKind::daemon, SubjectKind::limit}) {
                samples.bursts.push_back(measure_burst(plan, kind, burst, plan.burst_frames));
            }
        }
        if (is_of_target(burst)) {
            samples.long_bursts.push_back(
                measure_burst(plan, SubjectKind::daemon, burst, plan.long_burst_frames));
        }
    }
    let_subject_core_sleep();
}

// What each function takes for a delivered datagram of video.
static std::vector<FunctionCost> traced_run(const Plan &plan, int clients) {
    Stage stage = set_up(plan.daemon_path, {SubjectKind::daemon, clients, LoadKind::video,
                                            Buffers::large, DaemonMode::traced});
    const LoadResult result = run_load(stage.wire, stage.subject, plan.video, 1);
    end_subject(stage.subject); // which makes it write its count
    tear_down(stage);
    std::vector<FunctionCost> functions = traced_functions();
    for (FunctionCost &function : functions) {
        function.instructions /= static_cast<double>(result.delivered);
    }
    fprintf(stderr, "traced  daemon    %d clients: %.0f instructions each\n", clients,
            instructions_of(functions));
    return functions;
}

static Samples empty_samples(const Plan &plan) {
    Samples samples{};
    samples.rate_load = plan.data;
    for (const Load &load : {plan.data, plan.video}) {
        for (const int clients : {1, most_clients}) {
            samples.cases.push_back({{load, clients}, {}});
        }
    }
    return samples;
}

static void measure_round(const Plan &plan, const std::vector<SubjectKind> &kinds,
                          Samples &samples) {
    for (CaseSamples &into : samples.cases) {
        for (const SubjectKind kind : kinds) {
            measure(plan, kind, samples, into);
        }
    }
    measure_with_viewer(plan, samples);
    for (const SubjectKind kind : kinds) {
        samples.highest_rate[static_cast<int>(kind)].push_back(highest_rate(plan, kind));
    }
    measure_idle(plan, samples);
}

Samples measure_all(const Plan &plan) {
    Samples samples = empty_samples(plan);
    std::vector<SubjectKind> kinds = {SubjectKind::daemon, SubjectKind::plain, SubjectKind::limit};
    if (gstreamer_is_installed()) {
        kinds.push_back(SubjectKind::gstreamer);
    }
    for (int round = 0; round < plan.rounds; ++round) {
        measure_round(plan, kinds, samples);
    }
    measure_bursts(plan, samples);
    samples.slow_link = measure_slow_link(plan.daemon_path, plan.video);
    if (callgrind_is_installed()) {
        samples.traced = {traced_run(plan, 1), traced_run(plan, most_clients)};
    }
    return samples;
}
