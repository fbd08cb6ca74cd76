#pragma once

// Says whether a setting may have a value, before it is sent.
// Stands on: client/setting_limits, client/setting_rows.

#include "client/setting_limits.h"
#include "client/setting_rows.h"

#include <span>
#include <string>
#include <vector>

// The value that a word stands for: "on" and "yes" are 1, "off" and "no" are 0, the name of a
// choice is its value in any case, and letters of a country become capitals. Anything else stays.
std::string value_of_word(const SettingLimit &limit, const std::string &word);

// Is the value one of those that allowed_values() describes?
bool is_allowed(const SettingLimit &limit, const std::string &value);

// Two settings of a row whose values are each allowed, but not together.
struct ValueConflict {
    const char *key, *other;
    std::string text; // "ap_channel 36 is not a channel of 2.4 GHz (1 to 14)"
};

// `values` has one for each field of the row.
std::vector<ValueConflict> conflicts_in(const SettingRow &row, std::span<const std::string> values);
