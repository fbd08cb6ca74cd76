#pragma once

// Counts the datagrams that were dropped because there was no buffer space, and reports them.
// Stands on: base/ipv4.

#include "base/ipv4.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

constexpr int drop_capacity = 16; // destinations that are counted separately
constexpr size_t drop_text_capacity = 1024;
constexpr uint32_t drop_report_ms = 60000; // minimum time between two lines

// The datagrams dropped for one destination since the last line.
struct DropCount {
    std::atomic<uint64_t> destination; // an Ipv4Port; 0: free
    std::atomic<uint32_t> datagrams;
};

struct DropCounts {
    DropCount of[drop_capacity];
    std::atomic<uint32_t> others; // for all further destinations
};

// Counts one. Any thread.
void count_drop(DropCounts &counts, Ipv4Port destination);

// Writes "12 for 192.168.1.2:6000, 3 for 192.168.1.7:6000" to `text` of drop_text_capacity bytes
// and resets the counts; returns false and an empty text when nothing was dropped. A datagram that
// is counted during the call may be reported with the next ones or, if a destination is added or
// removed, under another one. One thread at a time.
bool take_drops(DropCounts &counts, char *text);

// Counts one in the daemon's own counts. Any thread.
void count_drop(Ipv4Port destination);

// Prints a line if something was dropped and the last line is at least a minute old. One thread
// calls this about once a second, with now_ms().
void report_drops(uint32_t now);
