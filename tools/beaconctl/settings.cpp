#include "client/setting_rows.h"

#include "beaconctl/commands.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/screen.h"
#include "beaconctl/text_table.h"
#include "client/command_text.h"
#include "client/section.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

int list_sections(bool as_json) {
    const auto names = section_names();
    print_lines(as_json ? std::vector{json_text(Json(names))}
                        : std::vector<std::string>(names.begin(), names.end()));
    return exit_ok;
}

int get_section(const Target &target, const std::string &section, bool as_json) {
    Link link;
    Json answer;
    if (!open_link(link, target)) {
        return exit_silent;
    }
    if (const int code = ask_section(link, section, answer); code != exit_ok) {
        return code;
    }
    if (as_json) {
        print_lines({json_text(answer)});
        return exit_ok;
    }
    std::vector<std::pair<std::string, std::string>> rows;
    for (const auto &[name, value] : answer.items()) {
        rows.emplace_back(name, value_text(value));
    }
    print_table(rows);
    return exit_ok;
}

static Json field_json(const SettingField &field, bool is_optional) {
    const char *type = field.type == SettingType::flag     ? "flag"
                       : field.type == SettingType::number ? "number"
                                                           : "text";
    return {{"name", field.key},
            {"member", field.member == nullptr ? Json() : Json(field.member)},
            {"type", type},
            {"optional", is_optional}};
}

static Json row_json(const SettingRow &row) {
    Json values = Json::array();
    for (const SettingField &field : row.fields) {
        values.push_back(field_json(field, values.size() >= row.fields.size() - row.optional));
    }
    return {{"param", row.param},
            {"sub", row.sub == nullptr ? Json() : Json(row.sub)},
            {"section", row.section == nullptr ? Json() : Json(row.section)},
            {"values", values}};
}

int list_params(bool as_json) {
    std::vector<std::string> lines;
    Json rows = Json::array();
    for (const SettingRow &row : setting_rows()) {
        lines.push_back(usage_line(row));
        rows.push_back(row_json(row));
    }
    print_lines(as_json ? std::vector{json_text(rows)} : lines);
    return exit_ok;
}

static int refuse_usage(const std::string &what) {
    fail(what);
    return exit_usage;
}

// No row has these words: says which there are.
static int report_unknown(const std::vector<std::string> &words) {
    std::string lines;
    for (const SettingRow &row : setting_rows()) {
        if (words[0] == row.param) {
            lines += "\n  beaconctl set " + usage_line(row);
        }
    }
    if (lines.empty()) {
        return refuse_usage("there is no param \"" + words[0] +
                            "\"; \"beaconctl set\" lists those that there are");
    }
    return refuse_usage("\"" + words[0] + "\" is used like this:" + lines);
}

static int ask_current(const Target &target, const SettingRow &row, Json &answer) {
    Link link;
    return open_link(link, target) ? ask_section(link, row.section, answer) : exit_silent;
}

// A value that the words leave out: what the board has now, or nothing where that may be.
static int complete_value(const SettingRow &row, size_t index, const Json &current,
                          std::string &value) {
    const SettingField &field = row.fields[index];
    if (row.section == nullptr) {
        return index >= row.fields.size() - row.optional
                   ? exit_ok
                   : refuse_usage(std::string(field.key) + " is missing; usage: beaconctl set " +
                                  usage_line(row));
    }
    if (!current.contains(field.member)) {
        return fail(std::string("the board does not say what ") + field.key +
                    " is now: give all values");
    }
    value = value_text(current[field.member]);
    return exit_ok;
}

// One value for each field.
static int complete_values(const Target &target, const SettingRow &row, const GivenValues &given,
                           std::vector<std::string> &values) {
    const bool is_complete =
        std::all_of(given.values.begin(), given.values.end(), [](auto &value) { return !!value; });
    Json current;
    int code = exit_ok;
    if (!is_complete && row.section != nullptr) {
        code = ask_current(target, row, current);
    }
    for (size_t i = 0; code == exit_ok && i < given.values.size(); ++i) {
        values.push_back(given.values[i].value_or(""));
        if (!given.values[i]) {
            code = complete_value(row, i, current, values.back());
        }
    }
    return code;
}

static std::string update_text(const SettingRow &row, const std::vector<std::string> &values) {
    TextMembers members = command_members(row, values);
    members.insert(members.begin(), {"cmd", "updateconfig"});
    return command_text(members);
}

// Reads the section back and says what has become of the values: those that were taken in a table,
// or all as JSON.
static int confirm_values(const Target &target, const SettingRow &row, const GivenValues &given,
                          const std::vector<std::string> &values, bool as_json) {
    Json answer;
    // Over a new socket: an answer to the earlier question must not be taken for this one.
    if (const int code = ask_current(target, row, answer); code != exit_ok) {
        fail("the command was sent; whether it was carried out is not known");
        return code;
    }
    std::vector<std::pair<std::string, std::string>> confirmed;
    Json told = Json::object();
    std::string differences;
    for (size_t i = 0; i < values.size(); ++i) {
        const SettingField &field = row.fields[i];
        const Json reported = answer.value(field.member, Json(""));
        const std::string now = value_text(reported);
        const bool is_taken = is_same_value(field, values[i], now);
        if (given.values[i] || !is_taken) {
            told[field.key] = reported;
        }
        if (!is_taken) {
            differences += std::string(differences.empty() ? "" : ", ") + field.key + " is \"" +
                           printable(now, false) + "\"";
        } else if (given.values[i]) {
            confirmed.emplace_back(field.key, now);
        }
    }
    print_lines(as_json ? std::vector{json_text(told)} : table_lines(confirmed));
    return differences.empty() ? exit_ok : fail("not taken as given: " + differences);
}

// Nothing is answered to a command. Later requests are taken after it, so an answer to one tells
// that the daemon is there and has got to it.
static int send_update(const Target &target, const std::string &command) {
    Link link;
    BoardInfo info{};
    if (const int code = reach_board(link, target, info); code != exit_ok) {
        return code;
    }
    if (command.size() > largest_client_payload) {
        return refuse_usage("the values are longer than the daemon reads");
    }
    send_payload(link, command);
    return exit_ok;
}

// What was sent cannot be read back.
static void report_sent(const SettingRow &row, bool as_json) {
    const char *words = row.ends_daemon
                            ? "Sent. The daemon stores it, ends and is started anew with it."
                            : "Sent; the daemon does not say what becomes of it.";
    print_lines({as_json ? "{}" : words});
}

int set_values(const Target &target, const std::vector<std::string> &words, bool as_json) {
    const auto [row, used] = find_setting_row(words);
    if (row == nullptr) {
        return report_unknown(words);
    }
    const std::span<const std::string> rest = std::span(words).subspan(used);
    const GivenValues given = read_values(*row, rest);
    if (!given.error.empty()) {
        return refuse_usage(given.error);
    }
    std::vector<std::string> values;
    if (const int code = complete_values(target, *row, given, values); code != exit_ok) {
        return code;
    }
    if (const int code = send_update(target, update_text(*row, values)); code != exit_ok) {
        return code;
    }
    if (row->section == nullptr || row->ends_daemon) {
        report_sent(*row, as_json);
        return exit_ok;
    }
    return confirm_values(target, *row, given, values, as_json);
}
