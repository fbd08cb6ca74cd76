#pragma once

// Reads the members of a control command, a JSON object of strings.
// Stands on: base/process_end.

#include <cjson/cJSON.h>

// Parses a command. Numbers and booleans become strings: a number as it is written, true as "1" and
// false as "0". The functions below therefore find them too. When the text is not JSON, the process
// ends abnormally, by design. The caller frees the result with cJSON_Delete.
cJSON *parse_command(const char *text);

// The member's text; null when it is missing or not a string. The text belongs to the command.
const char *find_member(const cJSON *command, const char *name);

// The member's text; empty when it is missing or not a string.
const char *member_or_empty(const cJSON *command, const char *name);

// The member's text. When it is missing, the process ends abnormally, by design.
const char *require_member(const cJSON *command, const char *name);
