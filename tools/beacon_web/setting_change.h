#pragma once

// Shows a section's settings to the page, and turns what it changes into commands.
// Stands on: client/answers, client/setting_limits, client/setting_rows, client/value_check.

#include "client/answers.h"

#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

// A section for the page, from the daemon's answer: its fields with their values, kinds, limits and
// help. Of a pass phrase it only says whether there is one. `has_options`: the options of the
// board's own camera, which go to a shell there, are shown and may be changed.
Json section_json(const std::string &section, const Json &answer, bool has_options);

struct SettingPlan { // NOLINT(bugprone-exception-escape): its destructor does not throw
    std::vector<std::string> commands;
    Json problems =
        Json::object(); // key -> what is wrong with its value; then there are no commands
    bool ends_daemon = false;
    std::vector<std::pair<std::string, std::string>> wanted; // key and value, of all changes
};

// `changes` has the new values by key; `answer` is what the daemon has now. What is not changed is
// sent as it is; rows without a change are not sent.
SettingPlan plan_change(const std::string &section, const Json &answer, const Json &changes,
                        bool has_options);

// The keys whose values are not what was wanted, with what they are; empty: all were taken.
Json not_taken(const std::string &section, const Json &answer, const SettingPlan &plan);
