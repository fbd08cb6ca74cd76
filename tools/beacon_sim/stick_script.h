#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// What the sticks of a radio control do over time: for each channel, points in time with raw
// values, and straight lines between them.
//
// As a text, each line is one point in time: seconds since the start, then channels with their raw
// values; "#" begins a comment, empty lines are skipped, times never fall:
//
//     0.0  ch1=1500 ch2=1500
//     2.5  ch1=2000
//     2.5  ch5=1000            # at the same time as the line before
//     4    ch1=1500 ch5=2000
//
// Channels 1 to 16 are those of the first receiver, 17 to 32 those of the second. Raw values are 0
// to 65535, of which 0 means no signal: there is no line to or from it, the earlier value holds.

constexpr int stick_channel_count = 32;

struct StickPoint {
    double seconds;
    uint16_t raw;
};

struct StickScript {
    // One without points is left alone.
    std::array<std::vector<StickPoint>, stick_channel_count> channels;
    double seconds = 0.0; // the last time in it
};

// Reads a script. Returns an empty text, or what is wrong with it and in which line.
std::string parse_stick_script(std::string_view text, StickScript &script);

// Channels 1 and 2 once round a circle in four seconds, then centred: the demonstration's stick.
StickScript circling_stick();

// The raw value of a channel that has points: the first one's before it, the last one's behind it.
uint16_t stick_raw_value(const std::vector<StickPoint> &points, double seconds);
