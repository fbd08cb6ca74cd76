#include "slow_link.h"

#include "stage.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <unistd.h>

// While this file is there, script/bench has a client registered that is behind a slow link.
constexpr const char *far_client_wanted = "/run/far_client_wanted";
constexpr const char *clients_file = "/run/quillorbeacon/clients.json";
constexpr int far_client_patience_s = 15;
constexpr double fill_seconds = 2; // until the link's queue is full
constexpr double seconds = 5;
constexpr int near_clients = most_clients - 1;

static int registered_clients() {
    char text[4096] = "";
    FILE *file = fopen(clients_file, "re");
    if (file == nullptr) {
        return 0;
    }
    const size_t size = fread(text, 1, sizeof text - 1, file);
    fclose(file);
    text[size] = '\0';
    int count = 0;
    for (const char *at = text; (at = strstr(at, "\"host\"")) != nullptr; ++at) {
        ++count;
    }
    return count;
}

// Asks script/bench for the client behind the slow link. Returns false when none appears.
static bool get_far_client(const Wire &wire) {
    FILE *file = fopen(far_client_wanted, "we");
    if (file == nullptr) {
        return false;
    }
    fclose(file);
    for (int i = 0; i < far_client_patience_s && registered_clients() <= near_clients; ++i) {
        register_clients(wire);
        sleep(1);
    }
    return registered_clients() > near_clients;
}

static void measure(Stage &stage, const Load &video, SlowLinkResult &result) {
    run_load(stage.wire, stage.subject, video, fill_seconds);
    const unsigned before = stage.wire.destinations[0].status_records;
    const int64_t start = monotonic_ns();
    const LoadResult load = run_load(stage.wire, stage.subject, video, seconds);
    const double took = static_cast<double>(monotonic_ns() - start) / 1e9;
    result.status_a_second = (stage.wire.destinations[0].status_records - before) / took;
    result.part_delivered =
        static_cast<double>(load.delivered) / static_cast<double>(load.expected);
    print_progress("slow", SubjectKind::daemon, load);
}

SlowLinkResult measure_slow_link(const char *daemon_path, const Load &video) {
    Stage stage = set_up(daemon_path, {SubjectKind::daemon, near_clients, LoadKind::video});
    SlowLinkResult result{get_far_client(stage.wire), NAN, NAN};
    if (result.is_measured) {
        measure(stage, video, result);
    }
    unlink(far_client_wanted);
    tear_down(stage);
    return result;
}
