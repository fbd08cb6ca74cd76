// Measures how fast the daemon relays, compared with other relays that do the same work in the same
// run. Runs in the sandbox, as root; see script/bench.

#include "gstreamer.h"
#include "machine.h"
#include "measure.h"
#include "media/frame_ring_layout.h"
#include "net/relay_packet.h"
#include "pauses.h"
#include "report.h"
#include "targets.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

constexpr Load default_data = {LoadKind::data, 1000, 1300};
constexpr Load default_video = {LoadKind::video, 60, 125000};
constexpr Plan full_plan = {.daemon_path = nullptr,
                            .rounds = 5,
                            .seconds = 1.5,
                            .rate_seconds = 0.5,
                            .idle_seconds = 5,
                            .burst_frames = 90,
                            .long_burst_frames = 1000,
                            .all_bursts = true,
                            .data = default_data,
                            .video = default_video,
                            .check = false};
constexpr Plan quick_plan = {.daemon_path = nullptr,
                             .rounds = 1,
                             .seconds = 0.8,
                             .rate_seconds = 0.3,
                             .idle_seconds = 3,
                             .burst_frames = 30,
                             .long_burst_frames = 60,
                             .all_bursts = false,
                             .data = default_data,
                             .video = default_video,
                             .check = false};
constexpr TargetCases target_cases = {1, 3};
// More than this of the machine's processor time taken by others, and the numbers say nothing.
constexpr double most_of_others = 0.05;
constexpr int exit_status_missed = 1;
constexpr int exit_status_usage = 2;
constexpr int exit_status_too_busy = 3;

static int usage() {
    fputs("usage: relay_bench [--quick] [--check] [--data RATE BYTES] [--video FRAMES BYTES] "
          "DAEMON\n"
          "  --quick   one round of everything\n"
          "  --check   status 1 when a target is missed, 3 when the machine is too busy to judge\n"
          "  --data    datagrams a second into port 5000 and the size of each\n"
          "  --video   frames a second into the ring and the size of each\n",
          stderr);
    return exit_status_usage;
}

static bool is_possible(const Load &load) {
    const bool is_video = load.kind == LoadKind::video;
    // Every block must have room for its header, including the last one of a frame.
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

static void print_notes(const Samples &samples) {
    if (std::isnan(of(samples.cases[0], SubjectKind::daemon)[0].instructions_each.user)) {
        puts("\nThis machine cannot count instructions as they run.");
    }
    if (!gstreamer_is_installed()) {
        puts("\nGStreamer (gst-launch-1.0) is not installed.");
    }
    printf("\nOther processes took %.1f %% of the machine's processor time meanwhile.\n",
           share_of_others() * 100);
}

// The exit status of --check.
static int judge(int missed) {
    if (share_of_others() > most_of_others) {
        puts("The machine was too busy to judge.");
        return exit_status_too_busy;
    }
    return missed > 0 ? exit_status_missed : EXIT_SUCCESS;
}

int main(int count, char **arguments) {
    Plan plan = full_plan;
    if (!read_arguments(count, arguments, plan)) {
        return usage();
    }
    if (access("/sys/board", F_OK) != 0) {
        fputs("relay_bench: runs on a board only; use script/bench\n", stderr);
        return exit_status_usage;
    }
    if (!take_cores()) {
        fputs("relay_bench: needs two cores\n", stderr);
        return exit_status_usage;
    }
    come_first();
    start_watching_others();
    const Samples samples = measure_all(plan);
    print_tables(samples);
    print_pauses();
    puts("");
    const int missed = print_targets(samples, target_cases);
    print_notes(samples);
    return plan.check ? judge(missed) : EXIT_SUCCESS;
}
