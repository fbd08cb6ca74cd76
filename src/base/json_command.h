#pragma once

#include <cjson/cJSON.h>

// Control commands: JSON objects whose members are strings.

// The member's text; null when it is missing or no string. Belongs to the command.
const char *find_member(const cJSON *command, const char *name);

// The member's text; empty when it is missing or no string.
const char *member_or_empty(const cJSON *command, const char *name);

// The member's text. A command without it ends the process abnormally, by design.
const char *require_member(const cJSON *command, const char *name);
