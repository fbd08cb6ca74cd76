#include "base/line_sink.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

// Writes all of `text`, a part of it, which the sink completes later, or nothing. Returns false for
// nothing.
static bool write_or_keep(LineSink &sink, std::string_view text) {
    const ssize_t written = sink.write(text.data(), text.size());
    if (written <= 0) {
        return false;
    }
    sink.rest = text.substr(static_cast<size_t>(written));
    return true;
}

// Writes what is left of a line. Returns false while some is left.
static bool complete_rest(LineSink &sink) {
    if (!sink.rest.empty()) {
        const std::string rest = std::move(sink.rest);
        sink.rest.clear();
        if (!write_or_keep(sink, rest)) {
            sink.rest = rest;
        }
    }
    return sink.rest.empty();
}

// Tells first how many lines were dropped before it.
static bool write_text(LineSink &sink, std::string_view text) {
    if (sink.dropped == 0) {
        return write_or_keep(sink, text);
    }
    char line[80];
    snprintf(line, sizeof line, "Standard error was not read: %lu lines dropped\n", sink.dropped);
    std::string told = sink.is_line_open ? "\n" : "";
    told += line;
    told += text;
    if (!write_or_keep(sink, told)) {
        return false;
    }
    sink.dropped = 0;
    return true;
}

static void drop(LineSink &sink, std::string_view text) {
    sink.dropped += static_cast<unsigned long>(std::count(text.begin(), text.end(), '\n'));
    sink.is_line_dropped = text.back() != '\n';
    sink.dropped += sink.is_line_dropped ? 1 : 0;
}

// Removes the end of a line whose start was dropped and counted.
static std::string_view without_dropped_line(LineSink &sink, std::string_view text) {
    if (!sink.is_line_dropped) {
        return text;
    }
    const size_t end = text.find('\n');
    sink.is_line_dropped = end == std::string_view::npos;
    return sink.is_line_dropped ? std::string_view() : text.substr(end + 1);
}

void put_text(LineSink &sink, const char *text, size_t size) {
    const std::string_view wanted = without_dropped_line(sink, {text, size});
    if (wanted.empty()) {
        return;
    }
    if (complete_rest(sink) && write_text(sink, wanted)) {
        sink.is_line_open = wanted.back() != '\n';
    } else {
        drop(sink, wanted);
    }
}
