#include "client/sequence_count.h"

constexpr uint32_t overtaken_limit =
    64; // a packet further behind is from before a restart, or after one
constexpr uint32_t remembered_missing = 1024; // more than overtaken_limit, and bounded

static void pass_over(SequenceCount &count, uint32_t gap) {
    count.lost += gap;
    if (gap > 0 && !count.missing.empty() && *count.missing.rbegin() >= count.expected) {
        count.missing.clear(); // they are from before the numbers began again at 0
    }
    const uint32_t first = gap > remembered_missing ? gap - remembered_missing : 0;
    for (uint32_t i = first; i < gap; ++i) {
        count.missing.insert(count.expected + i);
    }
    while (count.missing.size() > remembered_missing) {
        count.missing.erase(count.missing.begin());
    }
}

Arrival count_packet(SequenceCount &count, uint32_t sequence) {
    const uint32_t behind = count.expected - sequence; // modulo 2^32, as the numbers are
    if (count.started && behind > 0 && behind <= overtaken_limit) {
        if (count.missing.erase(sequence) == 0) {
            return Arrival::repeated;
        }
        --count.lost;
        return Arrival::late;
    }
    const bool is_new_count = !count.started || behind < (1U << 31U);
    if (is_new_count && behind != 0) {
        count.missing.clear();
    } else {
        pass_over(count, sequence - count.expected);
    }
    count.started = true;
    count.expected = sequence + 1;
    return Arrival::in_order;
}

bool is_missing_between(const SequenceCount &count, uint32_t after, uint32_t before) {
    const auto next = count.missing.upper_bound(after);
    const auto end = count.missing.end();
    if (after < before) {
        return next != end && *next < before;
    }
    return next != end || (!count.missing.empty() && *count.missing.begin() < before);
}

bool passes_gap(StreamGap &gap, const SequenceCount &count) {
    const bool is_gap = gap.lost != count.lost;
    gap.lost = count.lost;
    return is_gap;
}
