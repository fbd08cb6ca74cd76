#pragma once

#include "report.h"

// What the daemon has to reach, as ratios within one run wherever the machine matters.

// Which of the cases the targets refer to.
struct TargetCases {
    size_t data;
    size_t video;
};

// Prints a table and returns how many targets were missed. What was not measured is no miss.
int print_targets(const Samples &samples, const TargetCases &which);
