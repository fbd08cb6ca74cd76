#include "ranges.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

Range range_of(std::vector<double> values) {
    if (values.empty()) {
        return {NAN, NAN, NAN};
    }
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    const double median =
        values.size() % 2 != 0 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
    return {median, values.front(), values.back()};
}

std::string text_of(double number, int decimals) {
    char text[32];
    snprintf(text, sizeof text, "%.*f", decimals, number);
    return std::isnan(number) ? "-" : text;
}

std::string text_of(const Range &range, int decimals) {
    return text_of(range.median, decimals) + " (" + text_of(range.low, decimals) + " to " +
           text_of(range.high, decimals) + ")";
}

std::vector<double> numbers_of(const std::vector<LoadResult> &results, Number number) {
    std::vector<double> values;
    values.reserve(results.size());
    for (const LoadResult &result : results) {
        values.push_back(number(result));
    }
    return values;
}

Range range_of(const std::vector<LoadResult> &results, Number number) {
    return range_of(numbers_of(results, number));
}

Range ratios_of(const std::vector<double> &left, const std::vector<double> &right) {
    std::vector<double> ratios;
    for (size_t i = 0; i < std::min(left.size(), right.size()); ++i) {
        ratios.push_back(left[i] / right[i]);
    }
    return range_of(ratios);
}

Range ratios_of(const std::vector<LoadResult> &left, const std::vector<LoadResult> &right,
                Number number) {
    return ratios_of(numbers_of(left, number), numbers_of(right, number));
}

double cpu_us(const LoadResult &result) {
    return result.cpu_each.total_us;
}

double p50_ms(const LoadResult &result) {
    return result.p50_ms;
}
