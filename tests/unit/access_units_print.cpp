#include "beacon_sim/access_units.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>

// Splits an H.264 file into access units and prints each one's length on a line:
//
//     access_units_print FILE SEED LARGEST
//
// The file is fed in pieces of 1 to LARGEST bytes, at random from SEED.
int main(int argc, char **argv) {
    if (argc != 4) {
        fputs("usage: access_units_print FILE SEED LARGEST\n", stderr);
        return 2;
    }
    std::ifstream file(argv[1], std::ios::binary);
    const std::vector<char> stream{std::istreambuf_iterator<char>(file), {}};
    std::minstd_rand chance(static_cast<unsigned>(strtoul(argv[2], nullptr, 10)));
    std::uniform_int_distribution<size_t> piece(1, strtoul(argv[3], nullptr, 10));
    AccessUnitSplitter splitter;
    std::vector<AccessUnit> units;
    for (size_t at = 0, size = 0; at < stream.size(); at += size) {
        size = std::min(piece(chance), stream.size() - at);
        push_stream(splitter, reinterpret_cast<const uint8_t *>(stream.data()) + at, size, units);
    }
    end_stream(splitter, units);
    for (const AccessUnit &unit : units) {
        printf("%zu\n", unit.size());
    }
    return 0;
}
