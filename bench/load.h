#pragma once

#include "subject.h"
#include "wire.h"

#include <cstdint>
#include <vector>

// One measurement: traffic of one kind, at one rate, for some time. Every byte is checked.

struct Load {
    LoadKind kind;
    double rate;   // datagrams or frames a second
    uint32_t size; // bytes of each
};

struct LoadResult {
    uint64_t expected;  // datagrams that the destinations should receive
    uint64_t delivered; // and did receive, complete and in order
    uint64_t lost;
    uint64_t spoiled;    // arrived with a wrong byte, header or number
    uint64_t items_lost; // datagrams or frames that some destination did not receive completely
    CpuTime cpu_each;    // processor time for each delivered datagram
    Instructions instructions_each;
    double p50_ms; // from sending to arrival, of all delivered datagrams
    double p99_ms;
    double whole_p50_ms; // from sending to arrival of the last byte at the last destination
    double seconds;      // of traffic
    double drain_ms;     // from the last sending to the last arrival
    double late_ms;      // maximum delay of a sending after its due time
};

// Runs `load` over a connected wire for `seconds`, then waits a while for the rest to arrive.
LoadResult run_load(Wire &wire, const Subject &subject, const Load &load, double seconds);

// Tells whoever waits for the tables how a run went.
void print_progress(const char *what, SubjectKind kind, const LoadResult &result);

// Sends the frame with that number at once; it is lost when the subject has no room for it.
void hand_over_frame(Wire &wire, uint16_t run, uint32_t item, uint32_t size);

// The value that this part of all values lie below; NAN when there are none.
double quantile(std::vector<float> &values, double part);

// Sends `count` datagrams at once and returns how many of them the subject relays per second.
double burst_rate(Wire &wire, const Load &load, unsigned count);
