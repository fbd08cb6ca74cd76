#include "beacon_sim/stick_script.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <numbers>

static constexpr std::string_view blanks = " \t\r";

// Removes the first word from a line and returns it; empty if there is none.
static std::string_view take_word(std::string_view &line) {
    const size_t begin = std::min(line.find_first_not_of(blanks), line.size());
    line.remove_prefix(begin);
    const size_t end = std::min(line.find_first_of(blanks), line.size());
    const std::string_view word = line.substr(0, end);
    line.remove_prefix(end);
    return word;
}

template <typename T>
static bool parse_whole(std::string_view text, T &number) {
    const char *end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, number);
    return error == std::errc{} && stopped == end;
}

static std::string quoted(const char *what, std::string_view word) {
    return std::string(what) + " \"" + std::string(word.substr(0, 40)) + "\"";
}

// "ch5=1000"
static std::string parse_point(std::string_view word, double seconds, StickScript &script) {
    const size_t equals = word.find('=');
    int channel = 0;
    if (!word.starts_with("ch") || equals == std::string_view::npos ||
        !parse_whole(word.substr(2, equals - 2), channel) || channel < 1 ||
        channel > stick_channel_count) {
        return quoted("not a channel ch1 to ch32 with a value:", word);
    }
    int raw = 0;
    if (!parse_whole(word.substr(equals + 1), raw) || raw < 0 ||
        raw > std::numeric_limits<uint16_t>::max()) {
        return quoted("not a raw value 0 to 65535:", word);
    }
    script.channels[channel - 1].push_back({seconds, static_cast<uint16_t>(raw)});
    return {};
}

static std::string parse_line(std::string_view line, StickScript &script) {
    line = line.substr(0, line.find('#'));
    const std::string_view time = take_word(line);
    if (time.empty()) {
        return {};
    }
    double seconds = 0.0;
    if (!parse_whole(time, seconds) || !std::isfinite(seconds) || seconds < 0.0) {
        return quoted("not a time in seconds:", time);
    }
    if (seconds < script.seconds) {
        return quoted("a time before that of an earlier line:", time);
    }
    script.seconds = seconds;
    for (auto word = take_word(line); !word.empty(); word = take_word(line)) {
        std::string error = parse_point(word, seconds, script);
        if (!error.empty()) {
            return error;
        }
    }
    return {};
}

std::string parse_stick_script(std::string_view text, StickScript &script) {
    script = {};
    for (unsigned number = 1; !text.empty(); ++number) {
        const size_t end = std::min(text.find('\n'), text.size());
        const std::string error = parse_line(text.substr(0, end), script);
        if (!error.empty()) {
            return "line " + std::to_string(number) + ": " + error;
        }
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    const bool is_empty = std::all_of(std::begin(script.channels), std::end(script.channels),
                                      [](const auto &points) { return points.empty(); });
    return is_empty ? "no channel moves in it" : "";
}

StickScript circling_stick() {
    constexpr double length = 4.0;
    constexpr int steps = 80;
    constexpr double centre = 1500.0;
    constexpr double reach = 500.0;
    StickScript script;
    for (int i = 0; i <= steps; ++i) {
        const double seconds = length * i / steps;
        const double angle = 2.0 * std::numbers::pi * i / steps;
        script.channels[0].push_back(
            {seconds, static_cast<uint16_t>(std::lround(centre + reach * std::sin(angle)))});
        script.channels[1].push_back(
            {seconds, static_cast<uint16_t>(std::lround(centre + reach * std::cos(angle)))});
    }
    script.channels[0].push_back({length, static_cast<uint16_t>(centre)});
    script.channels[1].push_back({length, static_cast<uint16_t>(centre)});
    script.seconds = length;
    return script;
}

uint16_t stick_raw_value(const std::vector<StickPoint> &points, double seconds) {
    const auto next =
        std::upper_bound(points.begin(), points.end(), seconds,
                         [](double time, const StickPoint &point) { return time < point.seconds; });
    if (next == points.begin()) {
        return next->raw;
    }
    const StickPoint &before = *(next - 1);
    if (next == points.end() || before.raw == 0 || next->raw == 0) {
        return before.raw;
    }
    const double part = (seconds - before.seconds) / (next->seconds - before.seconds);
    return static_cast<uint16_t>(std::lround(before.raw + part * (next->raw - before.raw)));
}
