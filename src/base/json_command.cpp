#include "base/json_command.h"

#include "base/process_end.h"

#include <cstring>
#include <string>

// Moves to the next character, never past the end of the text.
static const char *step(const char *p) {
    return *p != '\0' ? p + 1 : p;
}

// Skips whatever the JSON library skips between two tokens.
static const char *skip_blanks(const char *p) {
    while (*p != '\0' && static_cast<unsigned char>(*p) <= ' ') {
        ++p;
    }
    return p;
}

// Returns the place after the closing quote; `p` is at the opening one.
static const char *skip_string(const char *p) {
    for (p = step(p); *p != '\0' && *p != '"'; p = step(p)) {
        p += *p == '\\' ? 1 : 0;
    }
    return step(p);
}

// Returns the place of the "," or "}" that ends the member's value at `p`.
static const char *skip_value(const char *p) {
    for (int depth = 0; *p != '\0';) {
        if (*p == '"') {
            p = skip_string(p);
            continue;
        }
        if (depth == 0 && (*p == ',' || *p == '}')) {
            break;
        }
        depth += *p == '{' || *p == '[' ? 1 : 0;
        depth -= *p == '}' || *p == ']' ? 1 : 0;
        ++p;
    }
    return p;
}

static void become_text(cJSON &item, const std::string &text) {
    auto *copy = static_cast<char *>(cJSON_malloc(text.size() + 1));
    if (copy != nullptr) {
        memcpy(copy, text.c_str(), text.size() + 1);
        item.type = cJSON_String;
        item.valuestring = copy;
    }
}

// Turns numbers and booleans into strings. The library does not keep a number as it was written, so
// this reads `text` again, which the library has found to be valid.
static void turn_into_texts(cJSON *command, const char *text) {
    const char *p = text + strcspn(text, "{");
    for (cJSON *item = command->child; item != nullptr; item = item->next) {
        p = skip_blanks(skip_string(skip_blanks(step(p)))); // behind the name
        const char *value = skip_blanks(step(p));           // behind the colon
        p = skip_value(value);
        if (cJSON_IsNumber(item) != 0) {
            become_text(*item, std::string(value, strcspn(value, ",} \t\r\n")));
        } else if (cJSON_IsBool(item) != 0) {
            become_text(*item, cJSON_IsTrue(item) != 0 ? "1" : "0");
        }
    }
}

cJSON *parse_command(const char *text) {
    cJSON *command = cJSON_Parse(text);
    if (command == nullptr) {
        end_process_abnormally("command is not JSON");
    }
    if (cJSON_IsObject(command) != 0) {
        turn_into_texts(command, text);
    }
    return command;
}

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
