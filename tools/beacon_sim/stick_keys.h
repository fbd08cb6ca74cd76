#pragma once

#include <cstdint>
#include <string>

// Sticks and switches moved from a keyboard. A terminal tells that a key was pressed and not that
// it was let go, so a stick stays where it was moved to: each press moves it one step, of five to
// either side.
//
//     left right, A D    channel 1, pan
//     up down, W S       channel 2, tilt
//     Q E                channel 3, roll
//     space              centres the three
//     1 2 3 4            channels 5 to 8, switched between the centre and the upper end

constexpr int key_channel_count = 8;

struct KeySticks {
    uint16_t raw[key_channel_count] = {1500, 1500, 1500, 1500, 1500, 1500, 1500, 1500};
    int escape = 0; // bytes seen of an arrow key's sequence
};

// Takes the next byte from the terminal. Returns whether a stick or switch was moved by it.
bool press_key(KeySticks &sticks, char byte);

// "ch1=1600 ch2=1500 ch3=1500 ch5=1500 ..."
std::string describe_sticks(const KeySticks &sticks);
