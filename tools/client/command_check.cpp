#include "client/command_check.h"

#include "client/packet.h"

#include <algorithm>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <optional>
#include <strings.h>

using nlohmann::ordered_json;

constexpr int deepest_nesting = 1000; // the daemon's parser takes no more

// The text that the daemon finds under a name. It looks at the first member of that name, ignoring
// case, and takes a string, or a number or boolean as text. Nothing when there is no such member or
// it is anything else.
static std::optional<std::string> find_text(const ordered_json &command, const char *name) {
    for (const auto &[key, value] : command.items()) {
        if (strcasecmp(key.c_str(), name) == 0) {
            return value.is_string()                         ? value.get<std::string>()
                   : value.is_number() || value.is_boolean() ? std::optional(value.dump())
                                                             : std::nullopt;
        }
    }
    return std::nullopt;
}

// The members without which this command ends the daemon.
static std::initializer_list<const char *> needed_members(const std::string &cmd) {
    static const std::initializer_list<const char *> none = {};
    static const std::initializer_list<const char *> param = {"param"};
    static const std::initializer_list<const char *> param_and_value = {"param", "value"};
    if (cmd == "wlan") {
        return param_and_value;
    }
    return cmd == "updateconfig" || cmd == "file" || cmd == "rc" ? param : none;
}

static std::string missing_member(const ordered_json &command) {
    const std::optional<std::string> cmd = find_text(command, "cmd");
    if (!cmd) {
        return "cmd";
    }
    for (const char *name : needed_members(*cmd)) {
        if (!find_text(command, name)) {
            return name;
        }
    }
    return "";
}

// How deeply lists and objects are nested. The recursion is bounded, because a command has at most
// largest_client_payload bytes.
static int depth_of(const ordered_json &value) {
    if (!value.is_structured()) {
        return 0;
    }
    int deepest = 0;
    for (const auto &inner : value) {
        deepest = std::max(deepest, depth_of(inner));
    }
    return deepest + 1;
}

static CheckedCommand refuse(const std::string &reason) {
    return {"", reason, Harm::ends_daemon, ""};
}

static CheckedCommand refuse_length() {
    return {"",
            "it is too long: the daemon reads " + std::to_string(largest_client_payload) +
                " bytes at most",
            Harm::read_in_part, ""};
}

// What the daemon does with commands of this name and param; `param` empty: any.
struct Effect {
    const char *cmd;
    const char *param;
    const char *text;
};
constexpr Effect effects[] = {
    {"config_request", "", "it answers with the settings of that section, if it knows it"},
    {"updateconfig", "",
     "it changes settings if the param and its values are known; it never answers"},
    {"restart", "", "it ends, and its supervisor starts it again"},
    {"reboot", "", "it reboots the board"},
    {"wlan", "scan", "it answers with the networks, after the scan"},
    {"file", "get", "it answers with a piece of the file"},
    {"rc", "get-channels", "it answers with the channels of both receivers"},
    {"rc", "calibrate-minmax", "it begins to learn the channels' ends; it does not answer"},
    {"rc", "finish-minmax", "it ends the calibration; it does not answer"},
    {"rc", "set-center", "it takes the sticks' places as centres; it does not answer"},
    {"rc", "set-config", "it stores the channels; it does not answer"},
};

static std::string effect_of(const ordered_json &command) {
    const std::string cmd = find_text(command, "cmd").value_or("");
    const std::optional<std::string> given = find_text(command, "param");
    if (cmd == "config_request" && !given) {
        return "it ignores it: it has no param";
    }
    const std::string param = given.value_or("");
    bool is_known = false;
    for (const Effect &effect : effects) {
        is_known |= cmd == effect.cmd;
        if (cmd == effect.cmd && (*effect.param == '\0' || param == effect.param)) {
            return effect.text;
        }
    }
    return "it ignores it: it knows no " +
           (is_known ? "param \"" + param + "\" of " + cmd : "command \"" + cmd + "\"");
}

// For the daemon a text ends at its first NUL.
static bool holds_nul(const ordered_json &command) {
    const auto has_nul = [](const std::string &text) { return text.find('\0') != text.npos; };
    for (const auto &[name, value] : command.items()) {
        const auto *text = value.get_ptr<const std::string *>();
        if (has_nul(name) || (text != nullptr && has_nul(*text))) {
            return true;
        }
    }
    return false;
}

static CheckedCommand check_json(std::string_view text) {
    if (text.size() > largest_client_payload) {
        return refuse_length();
    }
    const ordered_json command = ordered_json::parse(text, nullptr, false);
    if (command.is_discarded()) {
        return refuse("it is not valid JSON");
    }
    if (depth_of(command) > deepest_nesting) {
        return refuse("it is nested too deeply");
    }
    if (holds_nul(command)) {
        return refuse("a text in it holds a NUL");
    }
    const std::string missing = missing_member(command);
    if (!missing.empty()) {
        return refuse("it has no text member \"" + missing + "\"");
    }
    return {command.dump(-1, ' ', false, ordered_json::error_handler_t::replace), "", Harm::none,
            effect_of(command)};
}

CheckedCommand check_command(std::string_view text) {
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos || (text[first] != '{' && text[0] != '!')) {
        return {"", "it is neither a JSON object nor a \"!\" and a text", Harm::ignored, ""};
    }
    CheckedCommand checked =
        text[0] == '!' ? CheckedCommand{std::string(text), "", Harm::none,
                                        "it passes it on to the camera's program, if one is there"}
                       : check_json(text);
    return checked.text.size() > largest_client_payload ? refuse_length() : checked;
}
