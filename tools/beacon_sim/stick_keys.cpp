#include "beacon_sim/stick_keys.h"

#include <algorithm>

constexpr uint16_t lowest = 1000;
constexpr uint16_t centre = 1500;
constexpr uint16_t highest = 2000;
constexpr int step = 100;
constexpr int first_switch = 4; // channel 5
constexpr char escape_byte = '\x1b';

constexpr int pan = 0;
constexpr int tilt = 1;
constexpr int roll = 2;

static bool move(KeySticks &sticks, int channel, int by) {
    const int raw = std::clamp(sticks.raw[channel] + by, int{lowest}, int{highest});
    sticks.raw[channel] = static_cast<uint16_t>(raw);
    return true;
}

static bool press_arrow(KeySticks &sticks, char byte) {
    switch (byte) {
    case 'A':
        return move(sticks, tilt, step);
    case 'B':
        return move(sticks, tilt, -step);
    case 'C':
        return move(sticks, pan, step);
    case 'D':
        return move(sticks, pan, -step);
    default:
        return false;
    }
}

static bool press_plain(KeySticks &sticks, char byte) {
    switch (byte) {
    case 'a':
    case 'A':
        return move(sticks, pan, -step);
    case 'd':
    case 'D':
        return move(sticks, pan, step);
    case 'w':
    case 'W':
        return move(sticks, tilt, step);
    case 's':
    case 'S':
        return move(sticks, tilt, -step);
    case 'q':
    case 'Q':
        return move(sticks, roll, -step);
    case 'e':
    case 'E':
        return move(sticks, roll, step);
    case ' ':
        std::fill_n(sticks.raw, 3, centre);
        return true;
    default:
        return false;
    }
}

bool press_key(KeySticks &sticks, char byte) {
    // An arrow is ESC, "[" or "O", and a letter.
    const int escape = sticks.escape;
    sticks.escape = 0;
    if (byte == escape_byte) {
        sticks.escape = 1;
        return false;
    }
    if (escape == 1 && (byte == '[' || byte == 'O')) {
        sticks.escape = 2;
        return false;
    }
    if (escape == 2) {
        return press_arrow(sticks, byte);
    }
    if (byte >= '1' && byte <= '4') {
        uint16_t &raw = sticks.raw[first_switch + byte - '1'];
        raw = raw == centre ? highest : centre;
        return true;
    }
    return press_plain(sticks, byte);
}

std::string describe_sticks(const KeySticks &sticks) {
    std::string text;
    for (int i = 0; i < key_channel_count; ++i) {
        if (i != 3) { // channel 4 has no key
            text += (text.empty() ? "ch" : " ch") + std::to_string(i + 1) + "=" +
                    std::to_string(sticks.raw[i]);
        }
    }
    return text;
}
