#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// What "updateconfig" can change: its params, their sub-commands and the values each takes, in the
// order of the values. docs/settings.md says what every setting means.

enum class SettingType {
    flag,   // 0 or 1
    number, // decimal
    text,
};

struct SettingField {
    const char *key;    // in the configuration file; for what is no setting, a name of our own
    const char *member; // of the section's answer; null: it cannot be read back
    SettingType type;
};

struct SettingRow {
    const char *param;
    const char *sub = nullptr;     // null: there are no sub-commands
    const char *section = nullptr; // whose answer tells the values; null: none does
    std::span<const SettingField> fields{};
    int first_value = 0; // the number of the first field's member; 0: 1, or 2 behind a sub-command
    size_t optional = 0; // how many fields at the end may be left out
    bool ends_daemon = false; // the daemon ends, and is started anew, with the new value
};

std::span<const SettingRow> setting_rows();

// The sections that can be asked for.
std::span<const char *const> section_names();

// The row that the words name, and how many of them that took (the param, and the sub-command where
// there is one). Null and 0 when they name none.
std::pair<const SettingRow *, size_t> find_setting_row(std::span<const std::string> words);

// "display hflip <display_hflip:0|1>": how the row is used.
std::string usage_line(const SettingRow &row);

// The values that the words give, one for each field; nothing for a field that is to keep its
// value. The words are all of the values in order, or NAME=VALUE for those that change, NAME being
// the setting's key or the name that its section's answer has for it.
struct GivenValues {
    std::vector<std::optional<std::string>> values;
    std::string error; // why the words cannot be taken; else empty
};
GivenValues read_values(const SettingRow &row, std::span<const std::string> words);

// The members "param" and "value" to "value16" of the command, by name. `values` has one for each
// field.
std::vector<std::pair<std::string, std::string>>
command_members(const SettingRow &row, std::span<const std::string> values);

// Is what the daemon reports the value that was sent? Numbers count as numbers, and an empty
// network mask may have become the usual one.
bool is_same_value(const SettingField &field, std::string_view sent, std::string_view reported);
