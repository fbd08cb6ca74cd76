#include "net/drop_report.h"

#include <cstdio>

static DropCounts all_drops;

static bool count_at(DropCount &count, Ipv4Port destination) {
    uint64_t found = count.destination.load(std::memory_order_relaxed);
    if (found == 0 && count.destination.compare_exchange_strong(found, destination)) {
        found = destination;
    }
    if (found != destination) {
        return false;
    }
    count.datagrams.fetch_add(1, std::memory_order_relaxed);
    return true;
}

void count_drop(DropCounts &counts, Ipv4Port destination) {
    for (DropCount &count : counts.of) {
        if (count_at(count, destination)) {
            return;
        }
    }
    counts.others.fetch_add(1, std::memory_order_relaxed);
}

static size_t append(char *text, size_t used, uint32_t datagrams, const char *whom) {
    return used +
           static_cast<size_t>(snprintf(text + used, drop_text_capacity - used, "%s%u for %s",
                                        used != 0 ? ", " : "", datagrams, whom));
}

bool take_drops(DropCounts &counts, char *text) {
    size_t used = 0;
    uint32_t others = counts.others.exchange(0, std::memory_order_relaxed);
    text[0] = '\0';
    for (DropCount &count : counts.of) {
        const Ipv4Port destination = count.destination.load(std::memory_order_relaxed);
        const uint32_t datagrams = count.datagrams.exchange(0, std::memory_order_relaxed);
        if (datagrams == 0) {
            // Nothing since the last line: free the entry for another destination.
            count.destination.store(0, std::memory_order_relaxed);
            continue;
        }
        if (destination == 0) {
            others += datagrams; // counted while the entry was being freed
            continue;
        }
        char host[ipv4_text_size];
        char whom[ipv4_text_size + sizeof ":65535"];
        snprintf(whom, sizeof whom, "%s:%u", host_text(destination, host), port_of(destination));
        used = append(text, used, datagrams, whom);
    }
    if (others != 0) {
        used = append(text, used, others, "others");
    }
    return used != 0;
}

// Each entry is at most "4294967295 for 255.255.255.255:65535, ".
static_assert((drop_capacity + 1) * 39 < drop_text_capacity);

void count_drop(Ipv4Port destination) {
    count_drop(all_drops, destination);
}

void report_drops(uint32_t now) {
    static bool has_reported;
    static uint32_t last_report;
    if (has_reported && now - last_report < drop_report_ms) {
        return;
    }
    char text[drop_text_capacity];
    if (take_drops(all_drops, text)) {
        fprintf(stderr, "Dropped on the way to slow receivers: %s\n", text);
        has_reported = true;
        last_report = now;
    }
}
