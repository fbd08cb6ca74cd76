#include "beacon_sim/access_units.h"

#include <algorithm>
#include <utility>

constexpr size_t nothing = SIZE_MAX;
constexpr size_t start_code_size = 3;

static bool is_slice(unsigned kind) {
    return kind == 1 || kind == 2 || kind == 5;
}

// Units that come before the first slice of a picture: SEI, SPS, PPS, delimiter, and similar ones.
static bool is_opener(unsigned kind) {
    return (kind >= 6 && kind <= 9) || (kind >= 14 && kind <= 18);
}

// The position of the next start code whose unit type is known already, or `nothing`.
static size_t next_start_code(AccessUnitSplitter &splitter) {
    static constexpr uint8_t start_code[start_code_size] = {0, 0, 1};
    const std::vector<uint8_t> &buffer = splitter.buffer;
    const auto begin = buffer.begin() + static_cast<std::ptrdiff_t>(splitter.scan);
    const auto found = std::search(begin, buffer.end(), start_code, start_code + start_code_size);
    const auto at = static_cast<size_t>(found - buffer.begin());
    if (found == buffer.end()) {
        // The last two bytes may begin a start code.
        const size_t tail = buffer.size() < 2 ? 0 : buffer.size() - 2;
        splitter.scan = std::max(splitter.scan, tail);
        return nothing;
    }
    // The unit's type and one byte of its contents follow the start code.
    if (at + start_code_size + 2 > buffer.size()) {
        splitter.scan = at;
        return nothing;
    }
    return at;
}

// Ends the unit that began at `begin` before the start code at `at`; returns where it ended.
static size_t cut(const AccessUnitSplitter &splitter, size_t begin, size_t at,
                  std::vector<AccessUnit> &units) {
    const std::vector<uint8_t> &buffer = splitter.buffer;
    // The zero byte of a four-byte start code belongs to the unit that it starts.
    const size_t end = buffer[at - 1] == 0 ? at - 1 : at;
    units.emplace_back(buffer.begin() + static_cast<std::ptrdiff_t>(begin),
                       buffer.begin() + static_cast<std::ptrdiff_t>(end));
    return end;
}

void push_stream(AccessUnitSplitter &splitter, const uint8_t *data, size_t length,
                 std::vector<AccessUnit> &units) {
    splitter.buffer.insert(splitter.buffer.end(), data, data + length);
    size_t done = 0;
    for (size_t at = next_start_code(splitter); at != nothing; at = next_start_code(splitter)) {
        const unsigned kind = splitter.buffer[at + start_code_size] & 0x1FU;
        // first_mb_in_slice is the slice's first number; 0 is written as a single 1 bit.
        const bool is_first_slice =
            is_slice(kind) && (splitter.buffer[at + start_code_size + 1] & 0x80U) != 0;
        if (splitter.is_slice_seen && (is_first_slice || is_opener(kind))) {
            done = cut(splitter, done, at, units);
            splitter.is_slice_seen = false;
        }
        splitter.is_slice_seen = splitter.is_slice_seen || is_slice(kind);
        splitter.scan = at + start_code_size;
    }
    splitter.buffer.erase(splitter.buffer.begin(),
                          splitter.buffer.begin() + static_cast<std::ptrdiff_t>(done));
    splitter.scan -= done;
    if (splitter.buffer.size() > longest_access_unit) {
        end_stream(splitter, units);
    }
}

void end_stream(AccessUnitSplitter &splitter, std::vector<AccessUnit> &units) {
    if (!splitter.buffer.empty()) {
        units.push_back(std::move(splitter.buffer));
    }
    splitter = {};
}
