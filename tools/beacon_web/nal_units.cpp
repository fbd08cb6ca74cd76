#include "beacon_web/nal_units.h"

#include <algorithm>
#include <cstring>

constexpr size_t start_code_size = 3;

size_t find_start_code(ByteSpan stream, size_t from) {
    // The 1 is looked for: it is rarer than the zeros before it.
    for (size_t at = from + 2; at < stream.size(); ++at) {
        const void *found = memchr(&stream[at], 1, stream.size() - at);
        if (found == nullptr) {
            break;
        }
        at = static_cast<size_t>(static_cast<const uint8_t *>(found) - stream.data());
        if (stream[at - 1] == 0 && stream[at - 2] == 0) {
            return at - 2;
        }
    }
    return stream.size();
}

bool begins_with_start_code(ByteSpan stream) {
    const size_t at = find_start_code(stream.first(std::min<size_t>(stream.size(), 4)), 0);
    return at == 0 || (at == 1 && stream.size() >= 4 && stream[0] == 0);
}

std::vector<ByteSpan> split_units(ByteSpan stream) {
    std::vector<ByteSpan> units;
    size_t at = find_start_code(stream, 0);
    while (at < stream.size()) {
        const size_t begin = at + start_code_size;
        at = find_start_code(stream, begin);
        size_t end = at;
        while (end > begin && stream[end - 1] == 0) {
            --end;
        }
        if (end > begin) {
            units.push_back(stream.subspan(begin, end - begin));
        }
    }
    return units;
}
