#pragma once

// Lays out the channels of a radio-control receiver for people.
// Stands on: client/rc_channels.

#include "client/rc_channels.h"

#include <string>
#include <vector>

// A table of the channels; `number` is 1 or 2.
std::vector<std::string> receiver_lines(int number, const ReceiverAnswer &receiver);

// "1, 3"; "none" when there are none.
std::string number_list(const std::vector<int> &numbers);
