#pragma once

#include "load.h"

#include <cstdint>
#include <vector>

// What was measured, and the Markdown made of it.

struct Case {
    Load load;
    int clients;
};

// The samples of one case, one a round for each subject.
struct CaseSamples {
    Case what;
    std::vector<LoadResult> of[subject_kinds];
};

struct Samples {
    std::vector<CaseSamples> cases;
    Load rate_load;
    std::vector<double> highest_rate[subject_kinds]; // datagrams a second
    std::vector<double> idle_share[subject_kinds];   // of one core, with ten clients
    uint64_t private_bytes;                          // the most the daemon had
};

// Which of the cases the targets look at.
struct TargetCases {
    size_t data;
    size_t video;
};

void print_tables(const Samples &samples);
// Returns how many targets were missed.
int print_targets(const Samples &samples, const TargetCases &which);
