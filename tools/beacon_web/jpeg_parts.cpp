#include "beacon_web/jpeg_parts.h"

#include <charconv>
#include <string_view>

constexpr size_t longest_head = 1000;

// The number after "Content-length: " in the header lines; 0: there is none.
static size_t length_in(std::string_view head) {
    constexpr std::string_view name = "Content-length: ";
    const size_t at = head.find(name);
    size_t length = 0;
    if (at != std::string_view::npos) {
        std::from_chars(head.data() + at + name.size(), head.data() + head.size(), length);
    }
    return length;
}

std::optional<std::string> next_jpeg(JpegParts &parts) {
    constexpr std::string_view end_of_head = "\r\n\r\n";
    const size_t head_size = parts.received.find(end_of_head);
    if (parts.is_broken || head_size == std::string::npos) {
        parts.is_broken = parts.is_broken || parts.received.size() > longest_head;
        return std::nullopt;
    }
    const size_t length = length_in(std::string_view(parts.received).substr(0, head_size));
    const size_t begin = head_size + end_of_head.size();
    if (length == 0 || length > largest_jpeg) {
        parts.is_broken = true;
        return std::nullopt;
    }
    if (parts.received.size() < begin + length) {
        return std::nullopt;
    }
    std::string jpeg = parts.received.substr(begin, length);
    parts.received.erase(0, begin + length);
    return jpeg;
}
