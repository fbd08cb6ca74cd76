#pragma once

#include "rc/rc_block_layout.h"

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// What the daemon answers about the radio-control receivers, and what is done with it.

// Raw units, as the receiver gives them, but for what is said otherwise.
struct ChannelAnswer {
    int raw = 0;
    int min = 0;
    int centre = 0;
    int max = 0;
    double value = 0; // -1 to 1
    int dead_band = 0;
    int limit = 0; // per cent
    bool is_inverted = false;
    int function = 0;
};

struct ReceiverAnswer {
    int state = rc_absent; // an RcState
    std::vector<ChannelAnswer> channels;
    std::string json; // the answer for scripts, without its "cmd" member
};

using ReceiverAnswers = std::array<ReceiverAnswer, 2>;

// Nothing when the answer cannot be read or lacks the state or the channels.
std::optional<ReceiverAnswer> parse_receiver(std::string_view answer);

// The table for people; `number` is 1 or 2.
std::vector<std::string> receiver_lines(int number, const ReceiverAnswer &receiver);

// The numbers of the channels that have two ends by now, "1, 3"; or "none".
std::string moved_channels(const ReceiverAnswer &receiver);

// The channel list that gives the channels the ends and centres that they have here.
std::string channel_list(const ReceiverAnswer &receiver);

// Do both have the same ends and centres?
bool is_calibrated_alike(const ReceiverAnswer &one, const ReceiverAnswer &other);

// Has the receiver taken the sticks' places for its centres since `earlier`? Sticks tremble.
bool has_new_centres(const ReceiverAnswer &earlier, const ReceiverAnswer &now);
