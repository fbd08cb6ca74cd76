#pragma once

// Which bytes of a file a request wants, so that a download can be resumed.
// Stands on: nothing else of ours.

#include <cstdint>
#include <string>
#include <string_view>

enum class RangeKind {
    whole,      // the whole file
    part,       // some bytes of it
    impossible, // bytes that it does not have
};

struct ByteRange {
    RangeKind kind = RangeKind::whole;
    uint64_t first = 0;
    uint64_t size = 0; // bytes from `first` on
};

// The value of a Range header, for a file of `size` bytes. Anything but one range of bytes means
// the whole file, as the header may be ignored.
ByteRange wanted_range(std::string_view header, uint64_t size);

// A version of a file: it changes when the file does.
std::string version_tag(uint64_t size, int64_t modified, long modified_ns);

// Seconds since 1970 as HTTP writes them: "Sun, 22 Nov 2026 10:53:30 GMT".
std::string http_date(int64_t seconds);

// Does the value of an If-Range header, which may be empty, name this version?
bool names_version(std::string_view if_range, std::string_view tag, std::string_view date);
