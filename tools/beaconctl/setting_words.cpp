#include "beaconctl/setting_words.h"

#include "beaconctl/near_word.h"
#include "client/setting_limits.h"
#include "client/value_check.h"

#include <algorithm>
#include <cctype>

// Is the word the row's section, which has no other rows?
static bool is_alias(const SettingRow &row, const std::string &word) {
    const auto rows = setting_rows();
    return row.section != nullptr && word == row.section &&
           std::count_if(rows.begin(), rows.end(), [&](const SettingRow &each) {
               return each.section != nullptr && word == each.section;
           }) == 1;
}

std::pair<const SettingRow *, size_t> find_setting_row(std::span<const std::string> words) {
    for (const SettingRow &row : setting_rows()) {
        if (words.empty() || (words[0] != row.param && !is_alias(row, words[0]))) {
            continue;
        }
        if (row.sub == nullptr) {
            return {&row, 1};
        }
        if (words.size() > 1 && words[1] == row.sub) {
            return {&row, 2};
        }
    }
    return {nullptr, 0};
}

std::string usage_line(const SettingRow &row) {
    std::string line = row.param;
    line += row.sub == nullptr ? "" : std::string(" ") + row.sub;
    const size_t needed = row.fields.size() - row.optional;
    for (size_t i = 0; i < row.fields.size(); ++i) {
        const bool is_flag = row.fields[i].type == SettingType::flag;
        const std::string field = std::string(row.fields[i].key) + (is_flag ? ":0|1" : "");
        line += i < needed ? " <" + field + ">" : " [" + field + "]";
    }
    return line;
}

// The index of the field with that name; the number of fields if there is none.
static size_t field_named(const SettingRow &row, std::string_view name) {
    const auto found = std::find_if(row.fields.begin(), row.fields.end(), [&](const auto &field) {
        return name == field.key || (field.member != nullptr && name == field.member);
    });
    return static_cast<size_t>(found - row.fields.begin());
}

// Splits NAME=VALUE into the field's index and the value. If NAME is not a field, the index is the
// number of fields.
static std::pair<size_t, std::string> named_value(const SettingRow &row, std::string_view word) {
    const size_t equals = word.find('=');
    if (equals == std::string_view::npos) {
        return {row.fields.size(), ""};
    }
    return {field_named(row, word.substr(0, equals)), std::string(word.substr(equals + 1))};
}

// Does the word look like NAME=VALUE?
static bool is_assignment(std::string_view word) {
    const size_t equals = word.find('=');
    return equals != std::string_view::npos && equals > 0 &&
           std::all_of(word.begin(), word.begin() + static_cast<std::ptrdiff_t>(equals),
                       [](unsigned char c) { return isalnum(c) != 0 || c == '_'; });
}

// "its names: stream_srt_enabled (srt_enabled), stream_srt_url (srt_url)".
static std::string name_list(const SettingRow &row) {
    std::string list;
    for (const SettingField &field : row.fields) {
        list += (list.empty() ? "its names: " : ", ") + std::string(field.key);
        if (field.member != nullptr && std::string_view(field.member) != field.key) {
            list += " (" + std::string(field.member) + ")";
        }
    }
    return list.empty() ? "it takes no values" : list;
}

static std::string no_name_error(const SettingRow &row, const std::string &word) {
    std::vector<std::string> keys;
    for (const SettingField &field : row.fields) {
        keys.emplace_back(field.key);
    }
    const std::string hint = near_hint(word.substr(0, word.find('=')), keys);
    return "\"" + word + "\" is not a NAME=VALUE of this param" + (hint.empty() ? ";" : hint) +
           " " + name_list(row);
}

static std::string usage_error(const SettingRow &row, const std::string &what) {
    return what + "; usage: beaconctl set " + usage_line(row);
}

static GivenValues read_named(const SettingRow &row, std::span<const std::string> words) {
    GivenValues given{std::vector<std::optional<std::string>>(row.fields.size()), ""};
    for (const std::string &word : words) {
        const auto [field, value] = named_value(row, word);
        if (field == row.fields.size()) {
            given.error = no_name_error(row, word);
            return given;
        }
        given.values[field] = value;
    }
    return given;
}

static GivenValues read_in_order(const SettingRow &row, std::span<const std::string> words) {
    GivenValues given{std::vector<std::optional<std::string>>(row.fields.size()), ""};
    const size_t most = row.fields.size();
    const bool is_count_wrong = words.size() > most || words.size() < most - row.optional;
    const auto assignment = std::find_if(words.begin(), words.end(), is_assignment);
    if (is_count_wrong && assignment != words.end()) {
        given.error = no_name_error(row, *assignment);
        return given;
    }
    if (is_count_wrong) {
        given.error = usage_error(row, std::to_string(words.size()) +
                                           (words.size() == 1 ? " value" : " values") +
                                           " given instead of " + std::to_string(most) +
                                           (most > 1 ? " (or NAME=VALUE for some)" : ""));
        return given;
    }
    std::copy(words.begin(), words.end(), given.values.begin());
    return given;
}

// Turns the word into the value it stands for. False: the field may not have it.
static bool accept_value(const SettingField &field, std::string &value) {
    const SettingLimit *limit = setting_limit(field.key);
    if (limit == nullptr) {
        return true;
    }
    value = value_of_word(*limit, value);
    return is_allowed(*limit, value);
}

static std::string value_error(const SettingField &field, const std::string &said) {
    return std::string(field.key) + " takes " + allowed_values(*setting_limit(field.key)) +
           ", not \"" + said + "\"";
}

GivenValues read_values(const SettingRow &row, std::span<const std::string> words, bool is_forced) {
    const bool is_named = std::any_of(words.begin(), words.end(), [&](const std::string &word) {
        return named_value(row, word).first < row.fields.size();
    });
    GivenValues given = is_named ? read_named(row, words) : read_in_order(row, words);
    for (size_t i = 0; given.error.empty() && i < given.values.size(); ++i) {
        auto &value = given.values[i];
        const std::string said = value.value_or("");
        if (value && !accept_value(row.fields[i], *value) && !is_forced) {
            given.is_forcible = is_named || !is_assignment(said);
            given.error =
                given.is_forcible ? value_error(row.fields[i], said) : no_name_error(row, said);
        }
    }
    return given;
}

std::vector<std::vector<std::string>> value_rows(const SettingRow &row) {
    std::vector<std::vector<std::string>> table;
    for (const SettingField &field : row.fields) {
        if (const SettingLimit *limit = setting_limit(field.key); limit != nullptr) {
            table.push_back({field.key, allowed_values(*limit), limit->help});
        }
    }
    return table;
}
