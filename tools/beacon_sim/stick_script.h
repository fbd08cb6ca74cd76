#pragma once

// Moves sticks by a script.
// Stands on: nothing else of ours.

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Each channel has points in time with raw values, and straight lines between them.
//
// In the text, each line is one point in time: seconds since the start, then channels with their
// raw values. "#" begins a comment, empty lines are skipped, and times never decrease:
//
//     0.0  ch1=1500 ch2=1500
//     2.5  ch1=2000
//     2.5  ch5=1000            # at the same time as the line before
//     4    ch1=1500 ch5=2000
//
// Channels 1 to 16 belong to the first receiver, 17 to 32 to the second. Raw values are 0 to 65535;
// 0 means no signal, and no line leads to it or from it: the earlier value holds.

constexpr int stick_channel_count = 32;

struct StickPoint {
    double seconds;
    uint16_t raw;
};

struct StickScript {
    // A channel without points is not written.
    std::array<std::vector<StickPoint>, stick_channel_count> channels;
    double seconds = 0.0; // the last time in it
};

// Reads a script. Returns an empty text, or what is wrong and in which line.
std::string parse_stick_script(std::string_view text, StickScript &script);

// Channels 1 and 2 move once round a circle in four seconds, and are then centred: for the demo.
StickScript circling_stick();

// The raw value of a channel that has points. Before the first point it is that one's, after the
// last point that one's.
uint16_t stick_raw_value(const std::vector<StickPoint> &points, double seconds);
