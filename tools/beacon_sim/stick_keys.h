#pragma once

// Moves sticks and switches with the keyboard.
// Stands on: nothing else of ours.

#include <cstdint>
#include <string>

// A terminal reports that a key was pressed, but not that it was released. So a stick stays where
// it was moved to: each press moves it one step, five to either side.
//
//     left right, A D    channel 1, pan
//     up down, W S       channel 2, tilt
//     Q E                channel 3, roll
//     space              centres these three
//     1 2 3 4            channels 5 to 8, switched between the centre and the upper end

constexpr int key_channel_count = 8;

struct KeySticks {
    uint16_t raw[key_channel_count] = {1500, 1500, 1500, 1500, 1500, 1500, 1500, 1500};
    int escape = 0; // bytes received of an arrow key's sequence
};

// Takes the next byte from the terminal. Returns whether it moved a stick or switch.
bool press_key(KeySticks &sticks, char byte);

// "ch1=1600 ch2=1500 ch3=1500 ch5=1500 ..."
std::string describe_sticks(const KeySticks &sticks);
