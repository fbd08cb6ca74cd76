#pragma once

// Lets browsers turn the gimbal, and stops it when they fall silent.
// Stands on: client/clock, client/packet.

#include "client/clock.h"

#include <array>
#include <optional>
#include <string>

// The daemon keeps turning the gimbal until it gets zeros. A browser whose finger is on the pad
// repeats its values; when it is lost, nobody else would send the zeros.

constexpr double gimbal_patience = 0.3; // seconds from one message of the holder to the next
constexpr int zero_repeats = 3;         // datagrams get lost

using Sticks = std::array<double, 3>; // pan, tilt, roll, -1 to 1

struct GimbalHold {
    const void *holder = nullptr; // who moved it last and has not let go; only compared
    TimePoint heard{};            // the holder
    int zeros_left = 0;           // to be sent
};

// A browser's sticks. The payload for the daemon; nothing when another browser holds the gimbal and
// these are zeros.
std::optional<std::string> take_sticks(GimbalHold &hold, const void *holder, const Sticks &sticks,
                                       TimePoint now);

// The browser is gone.
void let_go(GimbalHold &hold, const void *holder);

// The payload to send now, if there is one. Call it twenty times a second.
std::optional<std::string> step_gimbal(GimbalHold &hold, TimePoint now);
