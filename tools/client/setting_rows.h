#pragma once

// The table of the settings that a client can change, and the commands that change them.
// Stands on: client/command_text.

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// A row is one "param" of the command "updateconfig", or one sub-command of it, with the values it
// takes in their order. docs/settings.md says what each setting means. The functions may be called
// by any thread.

enum class SettingType {
    flag,   // 0 or 1
    number, // decimal
    text,
};

struct SettingField {
    const char *key;    // the setting's; a name of our own for a value that is not stored
    const char *member; // in the section's answer; null: it cannot be read back
    SettingType type;
};

struct SettingRow {
    const char *param;
    const char *sub = nullptr;     // the sub-command; null: the param has none
    const char *section = nullptr; // the section that has the values; null: none has
    std::span<const SettingField> fields{};
    int first_value = 0;      // number of the first field's member; 0: 1, or 2 after a sub-command
    size_t optional = 0;      // how many fields at the end may be empty
    bool ends_daemon = false; // the daemon stores the values, ends, and is started again
};

std::span<const SettingRow> setting_rows();

// The names of all sections; client/section.h asks for one.
std::span<const char *const> section_names();

// Can a change of the row's values cut the way to the board, or end the daemon?
bool can_cut_link(const SettingRow &row);

// The command that sets the row's values. `values` has one text for each field. The daemon does not
// answer it: ask for the section to see what became of it.
std::string update_command(const SettingRow &row, std::span<const std::string> values);

// Is the value that the daemon reports the one that was sent? Numbers are compared as numbers, and
// an empty network mask may have become 255.255.255.0.
bool is_same_value(const SettingField &field, std::string_view sent, std::string_view reported);
