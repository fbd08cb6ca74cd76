#pragma once

// Reads the words of "beaconctl set": which row they name, and which values they give.
// Stands on: beaconctl/near_word, client/setting_limits, client/setting_rows, client/value_check.

#include "client/setting_rows.h"

#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

// The row that the words name, and how many words that took: the param, and the sub-command if
// there is one. A section with one row names it as well. Null and 0 if they name none.
std::pair<const SettingRow *, size_t> find_setting_row(std::span<const std::string> words);

// How the row is used: "display hflip <display_hflip:0|1>".
std::string usage_line(const SettingRow &row);

// The words are all values in order, or NAME=VALUE for those to change, where NAME is the setting's
// key or its member in the section's answer. A value that is not allowed is an error, unless
// `is_forced` is set.
struct GivenValues {
    std::vector<std::optional<std::string>> values; // one for each field; nothing: keep it
    std::string error;        // what is wrong with the words; empty if nothing is
    bool is_forcible = false; // the error is a value that is not allowed
};
GivenValues read_values(const SettingRow &row, std::span<const std::string> words,
                        bool is_forced = false);

// The row's values in a table: name, allowed values, help.
std::vector<std::vector<std::string>> value_rows(const SettingRow &row);
