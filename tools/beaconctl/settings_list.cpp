#include "beaconctl/commands.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/fail.h"
#include "beaconctl/screen.h"
#include "beaconctl/setting_names.h"
#include "beaconctl/setting_words.h"
#include "client/answers.h"
#include "client/setting_limits.h"
#include "client/setting_rows.h"

#include <nlohmann/json.hpp>

int list_sections(bool as_json) {
    const auto names = section_names();
    print_lines(as_json ? std::vector{json_text(Json(names))}
                        : std::vector<std::string>(names.begin(), names.end()));
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

static Json choices_json(std::span<const SettingChoice> choices) {
    Json list = Json::array();
    for (const SettingChoice &each : choices) {
        list.push_back({{"value", each.value}, {"name", each.name}, {"label", each.label}});
    }
    return list;
}

static Json limit_json(const SettingField &field) {
    Json json = {{"name", field.key}};
    if (const SettingLimit *limit = setting_limit(field.key); limit != nullptr) {
        json["allowed"] = allowed_values(*limit);
        json["help"] = limit->help;
        json["choices"] = choices_json(limit->choices);
    }
    return json;
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

// "display hflip", and below it its values.
static void add_value_lines(const SettingRow &row, std::vector<std::string> &lines) {
    lines.push_back(row.param + std::string(row.sub == nullptr ? "" : " ") +
                    (row.sub == nullptr ? "" : row.sub));
    for (const auto &cells : value_rows(row)) {
        lines.push_back("  " + cells[0] + ": " + cells[1]);
        lines.push_back("      " + cells[2] + ".");
    }
}

int list_values(const std::string &param, bool as_json) {
    std::vector<std::string> lines;
    Json list = Json::array();
    for (const SettingRow &row : setting_rows()) {
        if (!param.empty() && param != row.param &&
            (row.section == nullptr || param != row.section)) {
            continue;
        }
        add_value_lines(row, lines);
        for (const SettingField &field : row.fields) {
            list.push_back(limit_json(field));
        }
    }
    if (lines.empty()) {
        fail("there is no param \"" + param + "\"" + group_hint(param, ";") +
             " \"beaconctl set\" lists those that there are");
        return exit_usage;
    }
    print_lines(as_json ? std::vector{json_text(list)} : lines);
    return exit_ok;
}

// The words that may follow "NAME=".
static std::vector<std::string> value_words(const SettingLimit &limit) {
    if (limit.kind == ValueKind::flag) {
        return {"on", "off"};
    }
    std::vector<std::string> words;
    for (const SettingChoice &each : limit.choices) {
        words.emplace_back(each.name);
    }
    return words.empty() ? std::vector<std::string>{""} : words;
}

int list_words(const std::string &param) {
    std::vector<std::string> lines;
    for (const SettingRow &row : setting_rows()) {
        const bool is_meant =
            param == row.param || (row.section != nullptr && param == row.section);
        for (const SettingField &field : is_meant ? row.fields : std::span<const SettingField>{}) {
            for (const std::string &word : value_words(*setting_limit(field.key))) {
                lines.push_back(std::string(field.key) + "=" + word);
            }
        }
    }
    print_lines(lines);
    return exit_ok;
}
