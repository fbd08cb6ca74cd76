#include "load.h"

#include "arrivals.h"
#include "net/relay_packet.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

constexpr int64_t drain_limit_ns = 500'000'000;
constexpr int64_t burst_limit_ns = 2'000'000'000;
constexpr int64_t start_delay_ns = 2'000'000;

// A measurement in progress.
struct Tally {
    uint16_t run;
    uint32_t blocks;                // of each item
    uint32_t destinations;          // of each block
    std::vector<uint32_t> missing;  // of each item: blocks times destinations still to arrive
    std::vector<uint64_t> expected; // of each destination: the next block, counted from 0
    std::vector<float> latencies_ms;
    std::vector<float> whole_ms;
    uint64_t spoiled;
    int64_t last_arrival_ns;
};

static uint32_t block_size(const Load &load) {
    return load.kind == LoadKind::video ? relay_video_block_size : load.size;
}

static Tally make_tally(const Wire &wire, const Load &load, size_t items) {
    static uint16_t runs;
    Tally tally{};
    tally.run = ++runs;
    tally.blocks = (load.size + block_size(load) - 1) / block_size(load);
    // The display process, the last destination, gets no video.
    const size_t without_display = wire.destinations.size() - 1;
    tally.destinations =
        static_cast<uint32_t>(load.kind == LoadKind::video ? without_display : without_display + 1);
    tally.missing.assign(items, tally.blocks * tally.destinations);
    tally.expected.assign(wire.destinations.size(), 0);
    tally.latencies_ms.reserve(items * tally.blocks * tally.destinations);
    tally.whole_ms.reserve(items);
    return tally;
}

static void hand_over_datagram(Wire &wire, const Tally &tally, const Load &load, uint32_t item) {
    static uint8_t block[largest_block];
    fill_block(block, {block_marker, tally.run, item, 0, load.size, 0});
    stamp_block(block, monotonic_ns());
    send_to_subject(wire, block, load.size);
}

void hand_over_frame(Wire &wire, uint16_t run, uint32_t item, uint32_t size) {
    uint8_t *frame = next_frame(wire);
    if (frame == nullptr) {
        return;
    }
    for (uint32_t offset = 0; offset < size; offset += relay_video_block_size) {
        const uint32_t block = std::min<uint32_t>(size - offset, relay_video_block_size);
        fill_block(frame + offset,
                   {block_marker, run, item, offset / relay_video_block_size, block, 0});
    }
    const int64_t now = monotonic_ns();
    for (uint32_t offset = 0; offset < size; offset += relay_video_block_size) {
        stamp_block(frame + offset, now);
    }
    publish_frame(wire, size);
}

static void hand_over(Wire &wire, const Tally &tally, const Load &load, uint32_t item) {
    if (load.kind == LoadKind::video) {
        hand_over_frame(wire, tally.run, item, load.size);
    } else {
        hand_over_datagram(wire, tally, load, item);
    }
}

struct TakeContext {
    Tally &tally;
    const Wire &wire;
};

static void take_block(const Arrival &arrival, void *context) {
    auto &[tally, wire] = *static_cast<TakeContext *>(context);
    const BlockHeader &header = arrival.header;
    if (header.run != tally.run) {
        return; // late, from the previous measurement, or not from the benchmark
    }
    tally.last_arrival_ns = arrival.arrived_ns;
    const auto place = static_cast<size_t>(&arrival.destination - wire.destinations.data());
    const uint64_t number = static_cast<uint64_t>(header.item) * tally.blocks + header.index;
    if (!arrival.well_formed || header.item >= tally.missing.size() ||
        header.index >= tally.blocks || number < tally.expected[place] ||
        !is_intact(arrival.block, arrival.size, header)) {
        ++tally.spoiled;
        return;
    }
    tally.expected[place] = number + 1;
    const auto latency_ms = static_cast<float>(arrival.arrived_ns - header.handed_ns) / 1e6F;
    tally.latencies_ms.push_back(latency_ms);
    if (--tally.missing[header.item] == 0) {
        tally.whole_ms.push_back(latency_ms);
    }
}

static void drain_into(Tally &tally, Wire &wire, const Load &load) {
    TakeContext context{tally, wire};
    const uint8_t type = load.kind == LoadKind::video ? relay_type_video : relay_type_data;
    drain(wire, type, take_block, &context);
}

static uint64_t expected_datagrams(const Tally &tally) {
    return static_cast<uint64_t>(tally.missing.size()) * tally.blocks * tally.destinations;
}

// Receives what is still on its way until everything has arrived or the time is over.
static void drain_rest(Tally &tally, Wire &wire, const Load &load, int64_t limit_ns) {
    const int64_t end = monotonic_ns() + limit_ns;
    while (tally.latencies_ms.size() + tally.spoiled < expected_datagrams(tally) &&
           monotonic_ns() < end) {
        drain_into(tally, wire, load);
    }
}

// Items are sent up to half an interval late, at random: a strict rhythm could coincide with the
// kernel's timer tick, which divides processor time into user and system.
static int64_t due_ns(int64_t start_ns, double rate, uint32_t item) {
    const uint32_t hash = (item * 2654435761U) >> 16;
    const double jitter = static_cast<double>(hash) / 65536.0 / 2.0;
    return start_ns + static_cast<int64_t>((item + jitter) * 1e9 / rate);
}

static int64_t make_traffic(Tally &tally, Wire &wire, const Load &load, int64_t &late_ns) {
    const int64_t start_ns = monotonic_ns() + start_delay_ns;
    int64_t handed_ns = start_ns;
    for (uint32_t item = 0; item < tally.missing.size(); ++item) {
        const int64_t due = due_ns(start_ns, load.rate, item);
        do {
            drain_into(tally, wire, load);
            handed_ns = monotonic_ns();
        } while (handed_ns < due);
        late_ns = std::max(late_ns, handed_ns - due);
        hand_over(wire, tally, load, item);
    }
    return handed_ns;
}

double quantile(std::vector<float> &values, double part) {
    if (values.empty()) {
        return NAN;
    }
    const auto place = static_cast<size_t>(part * static_cast<double>(values.size() - 1));
    const auto at = values.begin() + static_cast<std::ptrdiff_t>(place);
    std::nth_element(values.begin(), at, values.end());
    return static_cast<double>(*at);
}

static CpuTime cpu_each(const CpuTime &before, const CpuTime &after, size_t datagrams) {
    const auto count = static_cast<double>(std::max<size_t>(datagrams, 1));
    return {(after.total_us - before.total_us) / count, (after.user_us - before.user_us) / count,
            (after.system_us - before.system_us) / count,
            (after.ended_children_us - before.ended_children_us) / count};
}

LoadResult run_load(Wire &wire, const Subject &subject, const Load &load, double seconds) {
    Tally tally = make_tally(wire, load, static_cast<size_t>(std::ceil(load.rate * seconds)));
    const CpuTime before = cpu_time(subject);
    const Instructions counted_before = counted(subject.counters);
    int64_t late_ns = 0;
    const int64_t handed_ns = make_traffic(tally, wire, load, late_ns);
    drain_rest(tally, wire, load, drain_limit_ns);
    const CpuTime after = cpu_time(subject);
    const Instructions counted_after = counted(subject.counters);
    LoadResult result{};
    result.expected = expected_datagrams(tally);
    result.delivered = tally.latencies_ms.size();
    result.spoiled = tally.spoiled;
    result.lost = result.expected - std::min(result.expected, result.delivered);
    result.items_lost = tally.missing.size() - tally.whole_ms.size();
    result.cpu_each = cpu_each(before, after, tally.latencies_ms.size());
    const auto delivered = static_cast<double>(std::max<size_t>(tally.latencies_ms.size(), 1));
    result.instructions_each = {(counted_after.user - counted_before.user) / delivered,
                                (counted_after.kernel - counted_before.kernel) / delivered};
    result.p50_ms = quantile(tally.latencies_ms, 0.5);
    result.p99_ms = quantile(tally.latencies_ms, 0.99);
    result.whole_p50_ms = quantile(tally.whole_ms, 0.5);
    result.seconds = seconds;
    result.drain_ms = static_cast<double>(tally.last_arrival_ns - handed_ns) / 1e6;
    result.late_ms = static_cast<double>(late_ns) / 1e6;
    return result;
}

void print_progress(const char *what, SubjectKind kind, const LoadResult &result) {
    fprintf(stderr,
            "%-7s %-9s delivered %llu lost %llu spoiled %llu, %.2f us each (%.2f user %.2f "
            "system), p50 %.3f ms p99 %.3f ms whole p50 %.3f ms, drained %.1f ms, generator late "
            "%.1f ms\n",
            what, subject_name(kind), static_cast<unsigned long long>(result.delivered),
            static_cast<unsigned long long>(result.lost),
            static_cast<unsigned long long>(result.spoiled), result.cpu_each.total_us,
            result.cpu_each.user_us, result.cpu_each.system_us, result.p50_ms, result.p99_ms,
            result.whole_p50_ms, result.drain_ms, result.late_ms);
}

double burst_rate(Wire &wire, const Load &load, unsigned count) {
    Tally tally = make_tally(wire, load, count);
    const int64_t start_ns = monotonic_ns();
    for (uint32_t item = 0; item < count; ++item) {
        hand_over(wire, tally, load, item);
    }
    drain_rest(tally, wire, load, burst_limit_ns);
    const double seconds = static_cast<double>(tally.last_arrival_ns - start_ns) / 1e9;
    const double relayed = static_cast<double>(tally.latencies_ms.size()) / tally.destinations;
    return seconds > 0 ? relayed / seconds : 0;
}
