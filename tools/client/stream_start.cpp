#include "client/stream_start.h"

#include <string_view>

constexpr std::string_view start_code{"\0\0\1", 3};
constexpr unsigned parameter_set_type = 7;
constexpr size_t longest_begun = 4; // a zero byte and the start code, without its type

// Where a decoder can begin; npos: nowhere yet.
static size_t find_parameter_set(std::string_view stream) {
    for (size_t at = stream.find(start_code); at != std::string_view::npos;
         at = stream.find(start_code, at + 1)) {
        const size_t type_at = at + start_code.size();
        if (type_at < stream.size() &&
            (static_cast<unsigned char>(stream[type_at]) & 0x1FU) == parameter_set_type) {
            return at > 0 && stream[at - 1] == '\0' ? at - 1 : at;
        }
    }
    return std::string_view::npos;
}

std::string take_stream(StreamStart &start, std::span<const uint8_t> piece, bool is_after_gap) {
    std::string stream(reinterpret_cast<const char *>(piece.data()), piece.size());
    if (start.found) {
        return stream;
    }
    if (!is_after_gap) {
        stream.insert(0, start.held);
    }
    const size_t at = find_parameter_set(stream);
    start.found = at != std::string_view::npos;
    if (start.found) {
        start.held.clear();
        return stream.substr(at);
    }
    const size_t kept = stream.size() < longest_begun ? stream.size() : longest_begun;
    start.held = stream.substr(stream.size() - kept);
    return "";
}
