#include "client/command_text.h"

#include <nlohmann/json.hpp>

using nlohmann::ordered_json;

std::string command_text(const TextMembers &members) {
    ordered_json command = ordered_json::object();
    for (const auto &[name, value] : members) {
        command[name] = value;
    }
    return command.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}
