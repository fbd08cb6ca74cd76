#include "beaconctl/commands.h"
#include "beaconctl/consent.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/fail.h"
#include "beaconctl/near_word.h"
#include "beaconctl/screen.h"
#include "beaconctl/setting_change.h"
#include "beaconctl/setting_names.h"
#include "beaconctl/text_file.h"
#include "beaconctl/text_table.h"
#include "client/setting_limits.h"
#include "client/value_check.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>

int set_values(const Target &target, const SetOptions &options) {
    const SetPlan plan = plan_set(options.words);
    if (!plan.error.empty()) {
        return refuse_usage(plan.error);
    }
    std::vector<SettingChange> changes;
    for (const RowWords &each : plan.rows) {
        changes.push_back(
            {each.row, read_values(*each.row, each.words, options.is_forced), {}, {}});
        const GivenValues &given = changes.back().given;
        if (!given.error.empty()) {
            return refuse_usage(given.error + (given.is_forcible ? force_hint : ""));
        }
    }
    for (SettingChange &change : changes) {
        if (const int code = complete_change(target, change, options); code != exit_ok) {
            return code;
        }
    }
    return apply_changes(target, changes, options);
}

static int read_file(const std::string &name, Json &settings) {
    std::string text;
    if (const int error = read_text_file(name, text); error != 0) {
        return fail(name + ": " + strerror(error));
    }
    settings = Json::parse(text, nullptr, false);
    return settings.is_object() ? exit_ok
                                : fail(name + ": this is not what \"get --all --json\" prints");
}

// The values of the row that the file has otherwise than the board.
static int find_differences(const SettingRow &row, const Json &wanted, const Json &current,
                            bool is_forced, SettingChange &change) {
    change = {&row, {std::vector<std::optional<std::string>>(row.fields.size()), ""}, {}, {}};
    for (size_t i = 0; i < row.fields.size(); ++i) {
        const SettingField &field = row.fields[i];
        const std::string now = value_text(current.value(field.member, Json("")));
        const std::string value = value_text(wanted.value(field.member, Json(now)));
        change.values.push_back(value);
        change.before.push_back(now);
        if (is_same_value(field, value, now)) {
            continue;
        }
        const SettingLimit *limit = setting_limit(field.key);
        if (!is_forced && limit != nullptr && !is_allowed(*limit, value)) {
            return refuse_usage(std::string(field.key) + " takes " + allowed_values(*limit) +
                                ", not \"" + printable(value, false) + "\"" + force_hint);
        }
        change.given.values[i] = value;
    }
    return exit_ok;
}

static std::vector<std::string> difference_lines(const std::vector<SettingChange> &changes) {
    std::vector<std::pair<std::string, std::string>> rows;
    for (const SettingChange &change : changes) {
        for (size_t i = 0; i < change.values.size(); ++i) {
            if (change.given.values[i]) {
                rows.emplace_back(change.row->fields[i].key,
                                  "\"" + change.before[i] + "\" -> \"" + change.values[i] + "\"");
            }
        }
    }
    return table_lines(rows);
}

// Says that the board does not know a name in the file: it is misspelt, or of another version.
static void tell_left_out(const std::string &what, const std::string &where,
                          const std::vector<std::string> &known, const std::string &name) {
    fail("left out: there is no " + what + "\"" + printable(name, false) + "\"" + where +
         near_hint(name, known));
}

static void tell_unknown(const std::string &section, const Json &wanted, const Json &current) {
    std::vector<std::string> known;
    for (const auto &[name, value] : current.items()) {
        known.push_back(name);
    }
    for (const auto &[name, value] : wanted.items()) {
        if (!current.contains(name)) {
            tell_left_out("", " in " + section, known, name);
        }
    }
}

static void tell_unknown_sections(const Json &wanted) {
    const std::vector<std::string> known(section_names().begin(), section_names().end());
    for (const auto &[name, value] : wanted.items()) {
        if (std::find(known.begin(), known.end(), name) == known.end()) {
            tell_left_out("section ", "", known, name);
        }
    }
}

// Compares the file with the board, section by section.
static int find_changes(const Target &target, const Json &wanted, bool is_forced,
                        std::vector<SettingChange> &changes) {
    std::map<std::string, Json> answers;
    for (const SettingRow &row : setting_rows()) {
        const bool is_wanted = row.section != nullptr && wanted.contains(row.section) &&
                               wanted[row.section].is_object();
        if (!is_wanted || std::string_view(row.param) == "rec") { // "recording" has its value
            continue;
        }
        Json &current = answers[row.section];
        if (current.is_null()) {
            if (const int code = ask_current(target, row, current); code != exit_ok) {
                return code;
            }
            tell_unknown(row.section, wanted[row.section], current);
        }
        SettingChange change{};
        if (const int code = find_differences(row, wanted[row.section], current, is_forced, change);
            code != exit_ok) {
            return code;
        }
        if (std::none_of(change.given.values.begin(), change.given.values.end(),
                         [](const auto &value) { return value.has_value(); })) {
            continue;
        }
        if (const int code = is_forced ? exit_ok : refuse_conflict(change); code != exit_ok) {
            return code;
        }
        changes.push_back(change);
    }
    return exit_ok;
}

int restore_settings(const Target &target, const std::string &file, const SetOptions &options) {
    Json wanted;
    if (const int code = read_file(file, wanted); code != exit_ok) {
        return code;
    }
    tell_unknown_sections(wanted);
    std::vector<SettingChange> changes;
    if (const int code = find_changes(target, wanted, options.is_forced, changes);
        code != exit_ok) {
        return code;
    }
    if (changes.empty()) {
        print_lines({"The board has these settings already."});
        return exit_ok;
    }
    std::vector<std::string> lines = difference_lines(changes);
    if (!options.as_json) {
        print_lines(lines);
    }
    if (!options.is_sure && (file == "-" || !can_ask())) {
        return refuse_to_ask("set --from");
    }
    if (!options.is_sure && !ask_yes("Change " + std::to_string(lines.size()) +
                                     (lines.size() == 1 ? " setting?" : " settings?"))) {
        return fail("not changed");
    }
    SetOptions sure = options;
    sure.is_sure = true; // the answer was for all of them
    return apply_changes(target, changes, sure);
}
