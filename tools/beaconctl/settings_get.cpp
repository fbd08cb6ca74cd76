#include "beaconctl/board.h"
#include "beaconctl/commands.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/fail.h"
#include "beaconctl/screen.h"
#include "beaconctl/section.h"
#include "beaconctl/setting_names.h"
#include "beaconctl/setting_words.h"
#include "beaconctl/text_table.h"
#include "client/setting_rows.h"

#include <nlohmann/json.hpp>

static void print_settings(const Json &settings, bool as_json) {
    if (as_json) {
        print_lines({json_text(settings)});
        return;
    }
    std::vector<std::pair<std::string, std::string>> rows;
    for (const auto &[name, value] : settings.items()) {
        rows.emplace_back(name, value_text(value));
    }
    print_table(rows);
}

static void keep_fields(const SettingRow &row, const Json &answer, Json &kept) {
    for (const SettingField &field : row.fields) {
        if (field.member != nullptr && answer.contains(field.member)) {
            kept[field.member] = answer[field.member];
        }
    }
}

// The part of the section's answer that belongs to the group's rows, or to one of them.
static Json part_of(const Json &answer, const std::string &group, const SettingRow *only) {
    Json kept = Json::object();
    for (const SettingRow &row : setting_rows()) {
        if (only == nullptr ? group == row.param : only == &row) {
            keep_fields(row, answer, kept);
        }
    }
    return kept;
}

// The member of the answer that a name means; empty if it means none.
static std::string member_called(const Json &answer, const std::string &group,
                                 const std::string &name) {
    const FieldPlace place = find_field(group, name);
    const char *member = place.row == nullptr ? nullptr : place.row->fields[place.index].member;
    if (member != nullptr && answer.contains(member)) {
        return member;
    }
    return answer.contains(name) ? name : "";
}

static int fail_without(const Json &answer, const std::string &group, const std::string &name) {
    std::vector<std::string> members;
    for (const auto &[each, value] : answer.items()) {
        members.push_back(each);
    }
    return fail("there is no \"" + name + "\" in " + group + field_hint(group, name, members));
}

static int pick_values(const Json &answer, const std::string &group,
                       std::span<const std::string> names, bool as_json) {
    Json picked = Json::object();
    for (const std::string &name : names) {
        const std::string member = member_called(answer, group, name);
        if (member.empty()) {
            return fail_without(answer, group, name);
        }
        picked[member] = answer[member];
    }
    if (picked.size() == 1 && !as_json) { // the bare value, for scripts
        print_lines({printable(value_text(picked.front()), true)});
    } else {
        print_settings(picked, as_json);
    }
    return exit_ok;
}

int get_values(const Target &target, const std::vector<std::string> &words, bool as_json) {
    const std::string &group = words[0];
    const FieldPlace key = is_group(group) ? FieldPlace{} : find_field("", group);
    const char *section = key.row != nullptr ? key.row->section : section_of(group);
    Link link;
    Json answer;
    if (!open_board(link, target)) {
        return exit_silent;
    }
    if (const int code = ask_section(link, section == nullptr ? group : section, answer);
        code != exit_ok) {
        return code;
    }
    if (key.row != nullptr) {
        return pick_values(answer, section, words, as_json);
    }
    const std::span<const std::string> names = std::span(words).subspan(1);
    const auto [row, used] = find_setting_row(words);
    const bool is_named = row != nullptr && used == 2 && words.size() == 2;
    if (is_named && row->fields.size() != 1) { // such as "streaming udp"
        print_settings(part_of(answer, group, row), as_json);
    } else if (!names.empty()) {
        return pick_values(answer, group, names, as_json);
    } else {
        print_settings(is_part_of_section(group) ? part_of(answer, group, nullptr) : answer,
                       as_json);
    }
    return exit_ok;
}

int get_all(const Target &target, bool as_json) {
    Json all = Json::object();
    for (const char *section : section_names()) {
        Link link;
        Json answer;
        if (!open_board(link, target)) {
            return exit_silent;
        }
        if (const int code = ask_section(link, section, answer); code != exit_ok) {
            return code;
        }
        all[section] = answer;
    }
    if (as_json) {
        print_lines({json_text(all)});
        return exit_ok;
    }
    for (const auto &[section, settings] : all.items()) {
        print_lines({"[" + section + "]"});
        print_settings(settings, false);
        print_lines({""});
    }
    return exit_ok;
}
