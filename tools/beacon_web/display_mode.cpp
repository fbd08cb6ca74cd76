#include "beacon_web/display_mode.h"

#include "client/setting_rows.h"
#include "client/value_check.h"

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>
#include <string_view>
#include <vector>

constexpr int largest_mode = 127;

static const SettingRow *row_of(std::string_view param, std::string_view sub) {
    const auto rows = setting_rows();
    const auto found = std::find_if(rows.begin(), rows.end(), [param, sub](const SettingRow &row) {
        return param == row.param && row.sub != nullptr && sub == row.sub;
    });
    return found == rows.end() ? nullptr : &*found;
}

// A number from 1 on with a group, nothing without.
static bool is_mode(std::string_view group, std::string_view mode) {
    int number = 0;
    const char *end = mode.data() + mode.size();
    const auto [stopped, error] = std::from_chars(mode.data(), end, number);
    return group.empty() ? mode.empty()
                         : error == std::errc{} && stopped == end && number >= 1 &&
                               number <= largest_mode && mode.front() != '0';
}

std::string display_mode_command(const Json &wanted, std::string &reason) {
    const Json output = wanted.value("output", Json());
    const Json keep = wanted.value("keep", Json(false));
    if ((output != "hdmi" && output != "tv") || !keep.is_boolean()) {
        reason = R"("output" has to be hdmi or tv, and "keep" true or false)";
        return "";
    }
    const SettingRow *row =
        row_of(output == "hdmi" ? "hdmi" : "cvbs", keep.get<bool>() ? "testandsave" : "test");
    if (row == nullptr) {
        reason = "there is no such command";
        return "";
    }
    std::vector<std::string> values;
    for (const SettingField &field : row->fields) {
        const std::string_view key = field.key;
        values.push_back(value_text(wanted.value(key, Json(""))));
        const SettingLimit *limit = setting_limit(field.key);
        const bool is_right = key == "mode" ? is_mode(values.front(), values.back())
                                            : limit != nullptr && is_allowed(*limit, values.back());
        if (!is_right) {
            reason = key == "mode" ? "\"mode\" has to be a number of the group, from 1 to 127"
                                   : "\"" + std::string(key) + "\" has to be " +
                                         (limit == nullptr ? "known" : allowed_values(*limit));
            return "";
        }
    }
    return update_command(*row, values);
}
