#include "source/source_command.h"

#include <cjson/cJSON.h>
#include <cstdio>

static std::string member(const cJSON *object, const char *name) {
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(object, name);
    return cJSON_IsString(item) != 0 ? item->valuestring : "";
}

std::optional<SourceCommand> parse_source_command(std::string_view datagram) {
    if (!datagram.starts_with("!{")) {
        return std::nullopt;
    }
    cJSON *object = cJSON_ParseWithLength(datagram.data() + 1, datagram.size() - 1);
    if (object == nullptr) {
        return std::nullopt;
    }
    SourceCommand command{
        member(object, "cmd"),
        member(object, "name"),
        member(object, "param"),
        {member(object, "value"), member(object, "value2"), member(object, "value3")}};
    cJSON_Delete(object);
    return command;
}

bool is_keep_alive(const SourceCommand &command) {
    return command.cmd == "set" && command.name == "movement";
}

std::string escaped_line(std::string_view datagram) {
    std::string text;
    for (const char c : datagram) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte < 0x7F && c != '\\') {
            text += c;
        } else {
            char escaped[5];
            snprintf(escaped, sizeof escaped, "\\x%02x", byte);
            text += escaped;
        }
    }
    return text;
}
