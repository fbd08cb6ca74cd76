#include "client/command_check.h"

#include "client/packet.h"

#include <algorithm>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <strings.h>

using nlohmann::ordered_json;

constexpr int deepest_nesting = 100; // the daemon's parser gives up at 1000

// What the daemon finds under a name: the first member of that name, whatever its case. Null when
// that is missing or no string.
static const std::string *find_text(const ordered_json &command, const char *name) {
    for (const auto &[key, value] : command.items()) {
        if (strcasecmp(key.c_str(), name) == 0) {
            return value.get_ptr<const std::string *>();
        }
    }
    return nullptr;
}

// The members that the daemon cannot do without, for those commands that have some.
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
    const std::string *cmd = find_text(command, "cmd");
    if (cmd == nullptr) {
        return "cmd";
    }
    for (const char *name : needed_members(*cmd)) {
        if (find_text(command, name) == nullptr) {
            return name;
        }
    }
    return "";
}

// How deep lists and objects lie in each other. Recursion is bounded: a command has at most
// largest_client_payload bytes.
static int depth_of(const ordered_json &value) {
    int deepest = 0;
    if (value.is_structured()) {
        for (const auto &inner : value) {
            deepest = std::max(deepest, depth_of(inner));
        }
    }
    return deepest + 1;
}

static CheckedCommand refuse(const std::string &reason) {
    return {"", reason};
}

// The daemon reads a longer one in part only.
static CheckedCommand refuse_length() {
    return {"",
            "it is too long: the daemon reads " + std::to_string(largest_client_payload) +
                " bytes at most",
            true};
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
        return refuse("it is no valid JSON");
    }
    if (!command.is_object()) {
        return refuse("it is no JSON object");
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
    return {command.dump(-1, ' ', false, ordered_json::error_handler_t::replace), ""};
}

CheckedCommand check_command(std::string_view text) {
    CheckedCommand checked =
        !text.empty() && text[0] == '!' ? CheckedCommand{std::string(text), ""} : check_json(text);
    return checked.text.size() > largest_client_payload ? refuse_length() : checked;
}
