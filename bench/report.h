#pragma once

#include "burst.h"
#include "load.h"
#include "slow_link.h"
#include "traced.h"

#include <cstdint>
#include <vector>

// The measurements, and the Markdown tables made of them.

struct Case {
    Load load;
    int clients;
};

// The shares of one core that the daemon uses with ten clients and nothing to relay while it
// searches for storage.
struct SearchSample {
    double daemon;
    double with_commands; // and the programs that it runs
};

// The samples of one case, one per round for each subject.
struct CaseSamples {
    Case what;
    std::vector<LoadResult> of[subject_kinds];
};

struct BurstSample {
    Burst what;
    SubjectKind kind;
    BurstResult result;
};

// User instructions for each datagram delivered, on the video path; empty where not measured.
struct TracedResult {
    std::vector<FunctionCost> one_client;
    std::vector<FunctionCost> ten_clients;
};

struct Samples {
    std::vector<CaseSamples> cases;
    Load rate_load;
    std::vector<double> highest_rate[subject_kinds]; // datagrams a second
    std::vector<double> idle_share[subject_kinds];   // of one core, with ten clients
    std::vector<SearchSample> searching;
    std::vector<BurstSample> bursts;
    std::vector<BurstSample> long_bursts;        // the daemon's, that the target is about
    std::vector<LoadResult> with_stalled_viewer; // the daemon's: the last case once more
    SlowLinkResult slow_link;
    TracedResult traced;
    uint64_t private_bytes; // the maximum for the daemon
};

const std::vector<LoadResult> &of(const CaseSamples &samples, SubjectKind kind);
double instructions_of(const std::vector<FunctionCost> &functions);
const char *name_of(const Case &what, char *text, size_t size);

void print_tables(const Samples &samples);
