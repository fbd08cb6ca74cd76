#include "beacon_web/byte_range.h"

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <limits>
#include <optional>

// A number larger than any file is one, too.
static std::optional<uint64_t> number_of(std::string_view text) {
    uint64_t value = 0;
    if (text.empty() || text.find_first_not_of("0123456789") != std::string_view::npos) {
        return std::nullopt;
    }
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    return result.ec == std::errc::result_out_of_range ? std::numeric_limits<uint64_t>::max()
                                                       : value;
}

static ByteRange last_bytes(uint64_t count, uint64_t size) {
    const uint64_t given = std::min(count, size);
    return given == 0 ? ByteRange{RangeKind::impossible, 0, 0}
                      : ByteRange{RangeKind::part, size - given, given};
}

ByteRange wanted_range(std::string_view header, uint64_t size) {
    const ByteRange whole{RangeKind::whole, 0, size};
    constexpr std::string_view unit = "bytes=";
    const size_t dash = header.find('-');
    if (!header.starts_with(unit) || dash == std::string_view::npos) {
        return whole;
    }
    const std::string_view before = header.substr(unit.size(), dash - unit.size());
    const std::string_view after = header.substr(dash + 1);
    const auto first = number_of(before);
    const auto last = number_of(after);
    if (before.empty() && last) {
        return last_bytes(*last, size);
    }
    if (!first || (!last && !after.empty()) || (last && *last < *first)) {
        return whole;
    }
    if (*first >= size) {
        return {RangeKind::impossible, 0, 0};
    }
    const uint64_t end = last ? std::min(*last, size - 1) : size - 1;
    return {RangeKind::part, *first, end - *first + 1};
}

std::string version_tag(uint64_t size, int64_t modified, long modified_ns) {
    char text[80];
    snprintf(text, sizeof text, "\"%" PRIx64 "-%" PRIx64 ".%lx\"", size,
             static_cast<uint64_t>(modified), static_cast<unsigned long>(modified_ns));
    return text;
}

std::string http_date(int64_t seconds) {
    constexpr const char *days[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    constexpr const char *months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const auto time = static_cast<time_t>(seconds);
    tm parts{};
    if (gmtime_r(&time, &parts) == nullptr) {
        return "";
    }
    char text[80];
    snprintf(text, sizeof text, "%s, %02d %s %04d %02d:%02d:%02d GMT", days[parts.tm_wday],
             parts.tm_mday, months[parts.tm_mon], parts.tm_year + 1900, parts.tm_hour, parts.tm_min,
             parts.tm_sec);
    return text;
}

bool names_version(std::string_view if_range, std::string_view tag, std::string_view date) {
    return if_range.empty() || if_range == tag || if_range == date;
}
