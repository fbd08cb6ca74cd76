#include "base/json_command.h"

#include "base/process_end.h"

#include <string>

const char *find_member(const cJSON *command, const char *name) {
    const cJSON *item = cJSON_GetObjectItem(command, name);
    return cJSON_IsString(item) != 0 ? item->valuestring : nullptr;
}

const char *member_or_empty(const cJSON *command, const char *name) {
    const char *text = find_member(command, name);
    return text != nullptr ? text : "";
}

const char *require_member(const cJSON *command, const char *name) {
    const char *text = find_member(command, name);
    if (text == nullptr) {
        const std::string reason = std::string("command without \"") + name + "\"";
        end_process_abnormally(reason.c_str());
    }
    return text;
}
