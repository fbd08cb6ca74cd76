#include "beacon_web/setting_change.h"

#include "client/setting_limits.h"
#include "client/setting_rows.h"
#include "client/value_check.h"

#include <algorithm>
#include <string_view>

constexpr std::string_view camera_options = "internal_camera_params";

// The row through which a section's settings are changed; not the one that only switches the live
// state.
static bool is_stored_in(const SettingRow &row, const std::string &section) {
    return row.section != nullptr && row.section == section && std::string_view(row.param) != "rec";
}

static const char *kind_name(ValueKind kind) {
    switch (kind) {
    case ValueKind::flag:
        return "flag";
    case ValueKind::number:
    case ValueKind::channel:
        return "number";
    case ValueKind::choice:
        return "choice";
    default:
        return "text";
    }
}

// Can a change cut the browser off?
static bool is_risky(const SettingRow &row) {
    const std::string_view param = row.param;
    return param == "wlan" || param == "ethernet" || row.ends_daemon;
}

static Json field_json(const SettingRow &row, const SettingField &field, const Json &answer) {
    Json json = {{"key", field.key}, {"kind", "text"}, {"help", field.key}};
    const std::string value = value_text(answer.value(field.member, Json("")));
    const SettingLimit *limit = setting_limit(field.key);
    if (limit != nullptr) {
        json["kind"] = kind_name(limit->kind);
        json["help"] = limit->help;
        json["allowed"] = allowed_values(*limit);
        json["least"] = limit->least;
        json["most"] = limit->most;
        for (const SettingChoice &choice : limit->choices) {
            json["choices"].push_back({choice.value, choice.label});
        }
    }
    json["risky"] = is_risky(row);
    if (limit != nullptr && limit->is_secret) {
        json["secret"] = true;
        json["is_set"] = !value.empty();
    } else {
        json["value"] = value;
    }
    return json;
}

Json section_json(const std::string &section, const Json &answer, bool has_options) {
    Json json = {{"section", section}, {"fields", Json::array()}, {"more", answer}};
    for (const SettingRow &row : setting_rows()) {
        if (!is_stored_in(row, section)) {
            continue;
        }
        for (const SettingField &field : row.fields) {
            json["more"].erase(field.member);
            if (field.key != camera_options || has_options) {
                json["fields"].push_back(field_json(row, field, answer));
            }
        }
    }
    return json;
}

// The value as the daemon gets it; empty with a problem, if it cannot be one.
static std::string wanted_value(const SettingField &field, const Json &given,
                                std::string &problem) {
    const SettingLimit *limit = setting_limit(field.key);
    std::string value;
    if (given.is_boolean()) {
        value = given.get<bool>() ? "1" : "0";
    } else if (given.is_string() || given.is_number_integer()) {
        value = value_text(given);
    } else {
        problem = "has to be text, a whole number, true or false";
    }
    if (problem.empty() && limit != nullptr && !is_allowed(*limit, value)) {
        problem = "takes " + allowed_values(*limit);
    }
    return value;
}

// Adds one row's command, if something of it changes.
static void plan_row(const SettingRow &row, const Json &answer, const Json &changes,
                     SettingPlan &plan) {
    std::vector<std::string> values;
    bool has_change = false;
    for (const SettingField &field : row.fields) {
        values.push_back(value_text(answer.value(field.member, Json(""))));
        if (!changes.contains(field.key)) {
            continue;
        }
        std::string problem;
        values.back() = wanted_value(field, changes[field.key], problem);
        if (!problem.empty()) {
            plan.problems[field.key] = problem;
        }
        plan.wanted.emplace_back(field.key, values.back());
        has_change = true;
    }
    if (!has_change) {
        return;
    }
    // What was in conflict before may stay so.
    for (const ValueConflict &conflict : conflicts_in(row, values)) {
        for (const char *key : {conflict.key, conflict.other}) {
            if (changes.contains(key)) {
                plan.problems[key] = conflict.text;
            }
        }
    }
    plan.commands.push_back(update_command(row, values));
    plan.ends_daemon = plan.ends_daemon || row.ends_daemon;
}

static bool has_key(const SettingRow &row, const std::string &key) {
    return std::any_of(row.fields.begin(), row.fields.end(),
                       [&](const SettingField &field) { return key == field.key; });
}

SettingPlan plan_change(const std::string &section, const Json &answer, const Json &changes,
                        bool has_options) {
    SettingPlan plan;
    for (const auto &item : changes.items()) {
        const std::string &key = item.key();
        const auto rows = setting_rows();
        const bool is_known = std::any_of(rows.begin(), rows.end(), [&](const SettingRow &row) {
            return is_stored_in(row, section) && has_key(row, key);
        });
        if (!is_known || (key == camera_options && !has_options)) {
            plan.problems[key] = "is no setting that can be changed here";
        }
    }
    for (const SettingRow &row : setting_rows()) {
        if (plan.problems.empty() && is_stored_in(row, section)) {
            plan_row(row, answer, changes, plan);
        }
    }
    if (!plan.problems.empty()) {
        plan.commands.clear();
    }
    return plan;
}

Json not_taken(const std::string &section, const Json &answer, const SettingPlan &plan) {
    Json found = Json::object();
    for (const SettingRow &row : setting_rows()) {
        for (const SettingField &field : row.fields) {
            for (const auto &[key, value] : plan.wanted) {
                if (is_stored_in(row, section) && key == field.key &&
                    !is_same_value(field, value,
                                   value_text(answer.value(field.member, Json(""))))) {
                    found[key] = "the board did not take it";
                }
            }
        }
    }
    return found;
}
