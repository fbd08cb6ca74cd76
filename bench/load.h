#pragma once

#include "subject.h"
#include "wire.h"

#include <cstdint>

// One measurement: traffic of one kind at one rate for some time, every byte of it checked.

enum class LoadKind { data, video };

struct Load {
    LoadKind kind;
    double rate;   // datagrams or frames a second
    uint32_t size; // bytes of each
};

struct LoadResult {
    uint64_t expected;  // datagrams that the destinations had to receive
    uint64_t delivered; // and did, whole and in order
    uint64_t lost;
    uint64_t spoiled;    // arrived with a wrong byte, header or number
    uint64_t items_lost; // datagrams or frames that not every destination has whole
    CpuTime cpu_each;    // processor time for each delivered datagram
    double p50_ms;       // from hand-over to arrival, of all datagrams delivered
    double p99_ms;
    double whole_p50_ms; // from hand-over to arrival of the last byte at the last destination
    double drain_ms;     // from the last hand-over to the last arrival
    double late_ms;      // the most that a hand-over came after its time
};

// Runs `load` over a connected wire for `seconds` and waits a while for what is under way.
LoadResult run_load(Wire &wire, const Subject &subject, const Load &load, double seconds);

// Hands over `count` datagrams at once and returns how many of them the subject relays a second.
double burst_rate(Wire &wire, const Load &load, unsigned count);
