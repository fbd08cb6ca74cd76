#include "beaconctl/setting_names.h"

#include "beaconctl/near_word.h"
#include "beaconctl/setting_words.h"

#include <algorithm>

static bool is_in_group(const SettingRow &row, std::string_view group) {
    return group.empty() || group == row.param || (row.section != nullptr && group == row.section);
}

static bool is_section(std::string_view name) {
    const auto names = section_names();
    return std::any_of(names.begin(), names.end(), [&](const char *each) { return name == each; });
}

bool is_group(std::string_view group) {
    const auto rows = setting_rows();
    return is_section(group) || std::any_of(rows.begin(), rows.end(), [&](const SettingRow &row) {
               return group == row.param;
           });
}

const char *section_of(std::string_view group) {
    for (const char *name : section_names()) {
        if (group == name) {
            return name;
        }
    }
    for (const SettingRow &row : setting_rows()) {
        if (group == row.param && row.section != nullptr) {
            return row.section;
        }
    }
    return nullptr;
}

bool is_part_of_section(std::string_view group) {
    const char *section = section_of(group);
    const auto rows = setting_rows();
    return section != nullptr && !is_section(group) &&
           std::any_of(rows.begin(), rows.end(), [&](const SettingRow &row) {
               return row.section != nullptr && std::string_view(section) == row.section &&
                      group != row.param;
           });
}

// How well a name fits a field of a row in the group; the lower, the better.
static int misfit(const SettingRow &row, size_t index, std::string_view group,
                  std::string_view name) {
    constexpr int none = 5;
    const SettingField &field = row.fields[index];
    if (name == field.key) {
        return 0;
    }
    if (group.empty()) {
        return none;
    }
    const int from_other_param = group == row.param ? 0 : 1;
    if (field.member != nullptr && name == field.member) {
        return 1 + from_other_param;
    }
    const bool is_sub = row.sub != nullptr && row.fields.size() == 1 && name == row.sub;
    return is_sub ? 3 + from_other_param : none;
}

FieldPlace find_field(std::string_view group, std::string_view name) {
    FieldPlace found;
    int least = 5;
    for (const SettingRow &row : setting_rows()) {
        if (row.section == nullptr || !is_in_group(row, group)) {
            continue;
        }
        for (size_t i = 0; i < row.fields.size(); ++i) {
            if (const int now = misfit(row, i, group, name); now < least) {
                least = now;
                found = {&row, i};
            }
        }
    }
    return found;
}

static std::vector<std::string> all_keys() {
    std::vector<std::string> keys;
    for (const SettingRow &row : setting_rows()) {
        for (const SettingField &field : row.fields) {
            if (row.section != nullptr) {
                keys.emplace_back(field.key);
            }
        }
    }
    return keys;
}

std::string group_hint(std::string_view word, std::string_view none) {
    std::vector<std::string> names(section_names().begin(), section_names().end());
    for (const SettingRow &row : setting_rows()) {
        names.emplace_back(row.param);
    }
    const std::vector<std::string> keys = all_keys();
    names.insert(names.end(), keys.begin(), keys.end());
    const std::string hint = near_hint(word, names);
    return hint.empty() ? std::string(none) : hint;
}

std::string key_hint(std::string_view word) {
    return near_hint(word, all_keys());
}

std::string field_hint(std::string_view group, std::string_view word,
                       std::span<const std::string> others) {
    std::vector<std::string> names(others.begin(), others.end());
    for (const SettingRow &row : setting_rows()) {
        if (!is_in_group(row, group)) {
            continue;
        }
        if (row.sub != nullptr) {
            names.emplace_back(row.sub);
        }
        for (const SettingField &field : row.fields) {
            names.emplace_back(field.member == nullptr ? field.key : field.member);
            names.emplace_back(field.key);
        }
    }
    return near_hint(word, names);
}

static std::string no_field_error(std::string_view group, std::string_view name) {
    return group.empty() ? "there is no setting \"" + std::string(name) + "\"" + group_hint(name)
                         : "there is no \"" + std::string(name) + "\" in " + std::string(group) +
                               field_hint(group, name);
}

// Adds KEY=VALUE to the words of the setting's row.
static void add_value(SetPlan &plan, std::string_view group, std::string_view name,
                      std::string_view value) {
    const FieldPlace place = find_field(group, name);
    if (place.row == nullptr) {
        plan.error = plan.error.empty() ? no_field_error(group, name) : plan.error;
        return;
    }
    auto row = std::find_if(plan.rows.begin(), plan.rows.end(),
                            [&](const RowWords &each) { return each.row == place.row; });
    if (row == plan.rows.end()) {
        row = plan.rows.insert(row, {place.row, {}});
    }
    row->words.push_back(std::string(place.row->fields[place.index].key) + "=" +
                         std::string(value));
}

static bool has_name_and_value(std::string_view word) {
    return word.find('=') != std::string_view::npos && !word.starts_with('=');
}

// The words are NAME=VALUE each, or one name and one value.
static void add_values(SetPlan &plan, std::string_view group, std::span<const std::string> words) {
    const bool are_pairs =
        !words.empty() && std::all_of(words.begin(), words.end(), has_name_and_value);
    if (are_pairs) {
        for (const std::string_view word : words) {
            const size_t equals = word.find('=');
            add_value(plan, group, word.substr(0, equals), word.substr(equals + 1));
        }
    } else if (words.size() == 2 &&
               (!group.empty() || find_field(group, words[0]).row != nullptr)) {
        add_value(plan, group, words[0], words[1]);
    }
}

// How the group is used, one row in each line.
static std::string usage_of(std::string_view group) {
    std::string lines;
    for (const SettingRow &row : setting_rows()) {
        lines += is_in_group(row, group) ? "\n  beaconctl set " + usage_line(row) : "";
    }
    return lines;
}

static std::string unplanned_error(std::span<const std::string> words) {
    const std::string &group = words[0];
    if (!is_group(group)) {
        const bool is_key = find_field("", group).row != nullptr;
        const std::string hint = group_hint(group.substr(0, group.find('=')), ";");
        return is_key ? "\"" + group + "\" needs one value"
                      : "there is no param \"" + group + "\"" + hint +
                            " \"beaconctl set\" lists those that there are";
    }
    const std::string usage = usage_of(group);
    if (words.size() > 1 && words[1].find('=') == std::string::npos &&
        find_field(group, words[1]).row == nullptr) {
        const std::string hint = field_hint(group, words[1]);
        return "there is no \"" + words[1] + "\" in " + group + (hint.empty() ? ";" : hint) +
               " \"" + group + "\" is used like this:" + usage;
    }
    return "\"" + group + "\" is used like this:" + usage;
}

SetPlan plan_set(std::span<const std::string> words) {
    SetPlan plan;
    const auto [row, used] = find_setting_row(words);
    if (row != nullptr) {
        plan.rows.push_back(
            {row, {words.begin() + static_cast<std::ptrdiff_t>(used), words.end()}});
        return plan;
    }
    if (is_group(words[0])) {
        add_values(plan, words[0], words.subspan(1));
    } else {
        add_values(plan, "", words);
    }
    if (plan.rows.empty() && plan.error.empty()) {
        plan.error = unplanned_error(words);
    }
    return plan;
}
