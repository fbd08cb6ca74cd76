#pragma once

// Asks for the radio-control channels, and calibrates them.
// Stands on: client/answers, client/command_text, client/request, rc/rc_block_layout.

#include "client/request.h"

#include "rc/rc_block_layout.h"

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// In raw units, as the receiver sends them, unless it says otherwise.
struct ChannelAnswer {
    int raw = 0;
    int min = 0;
    int centre = 0;
    int max = 0;
    double value = 0; // -1 to 1
    int dead_band = 0;
    int limit = 0; // per cent
    bool is_inverted = false;
    int function = 0; // what the channel controls: function_text() has its name
};

struct ReceiverAnswer {
    int state = rc_absent;               // an RcState
    std::vector<ChannelAnswer> channels; // channel 1 first
    std::string json;                    // the answer as it came, mended, without its "cmd" member
};

using ReceiverAnswers = std::array<ReceiverAnswer, 2>; // RC1 and RC2

// Nothing when the answer cannot be read or lacks the state or the channels.
std::optional<ReceiverAnswer> parse_receiver(std::string_view answer);

// Asks for both receivers, five times within `seconds`.
Request channels_request(double seconds, ReceiverAnswers &receivers);

// A function's name, such as "pan"; its number if it has no name.
std::string function_text(int function);

// The steps of a calibration, in order. The daemon does not answer these commands: ask for the
// channels to see that a step was taken.
enum class CalibrationStep {
    begin_ends,   // the state becomes rc_calibrating; then the sticks are moved to their ends
    finish_ends,  // the state becomes rc_present; the ends are saved
    take_centres, // the sticks' positions become the centres, and are saved
};
std::string calibration_command(CalibrationStep step, int receiver); // 1 or 2

// Is the receiver in that state, and does it hear its transmitter? The daemon sets the state that a
// command asks for, whether or not the receiver is there. A lost one has raw values of 0.
bool is_heard(const ReceiverAnswer &receiver, int state);

// The numbers of the channels that were moved to two different ends so far.
std::vector<int> moved_channels(const ReceiverAnswer &receiver);

// Have the sticks' positions become the centres since `earlier`? Small differences do not count.
bool has_new_centres(const ReceiverAnswer &earlier, const ReceiverAnswer &now);

// The command that gives the channels of receiver 1 or 2 the ends and centres of `values`.
std::string restore_command(int receiver, const ReceiverAnswer &values);

// Do both have the same ends and centres?
bool is_calibrated_alike(const ReceiverAnswer &one, const ReceiverAnswer &other);
