#pragma once

#include "load.h"

#include <string>
#include <vector>

// Numbers over the rounds of a run: their median and how far they spread.

struct Range {
    double median; // NAN when there are no numbers
    double low;
    double high;
};

Range range_of(std::vector<double> values);

// "1.07", or "-" for NAN
std::string text_of(double number, int decimals);
// "1.07 (1.05 to 1.12)"
std::string text_of(const Range &range, int decimals);

// One number of each result.
using Number = double (*)(const LoadResult &);
std::vector<double> numbers_of(const std::vector<LoadResult> &results, Number number);
Range range_of(const std::vector<LoadResult> &results, Number number);

// The left number divided by the right one of the same round.
Range ratios_of(const std::vector<double> &left, const std::vector<double> &right);
Range ratios_of(const std::vector<LoadResult> &left, const std::vector<LoadResult> &right,
                Number number);

double cpu_us(const LoadResult &result);
double p50_ms(const LoadResult &result);
