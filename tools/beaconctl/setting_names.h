#pragma once

// Finds settings by whatever name people know them: section, param, sub-command, member or key.
// Stands on: beaconctl/near_word, beaconctl/setting_words, client/setting_rows.

#include "client/setting_rows.h"

#include <span>
#include <string>
#include <string_view>
#include <vector>

// A group is a section of "get" or a param of "set"; both commands take either. An empty group is
// all of them.
bool is_group(std::string_view group);

// The section whose answer has the group's values; null if none has.
const char *section_of(std::string_view group);

// Are the values of the group only a part of its section's, as "osd" is a part of "display"?
bool is_part_of_section(std::string_view group);

// A field of a row; the row is null if there is none.
struct FieldPlace {
    const SettingRow *row = nullptr;
    size_t index = 0;
};

// The field that a name means in a group: its key, its member, or the sub-command that has no other
// field. In the empty group only keys are unique, so only they are found. Fields that cannot be
// read back are not found.
FieldPlace find_field(std::string_view group, std::string_view name);

// ", did you mean "display"?" for a word that is neither a group nor a key; `none` if none is near.
std::string group_hint(std::string_view word, std::string_view none = "");

// The same for a word that should have been a key.
std::string key_hint(std::string_view word);

// The same for a word that means no field of the group. `others` are names that are right, too.
std::string field_hint(std::string_view group, std::string_view word,
                       std::span<const std::string> others = {});

// What the words of "set" change: for each row its values as NAME=VALUE, or all of them in order.
struct RowWords {
    const SettingRow *row;
    std::vector<std::string> words;
};
struct SetPlan {
    std::vector<RowWords> rows;
    std::string error; // what is wrong with the words; empty if nothing is
};

// The words begin with a param and its sub-command, or name settings in these ways:
//     GROUP NAME=VALUE...    the settings may belong to several rows
//     GROUP NAME VALUE
//     KEY=VALUE...
//     KEY VALUE
SetPlan plan_set(std::span<const std::string> words);
