#pragma once

// Reads the configuration file into the record, and stores single settings.
// Stands on: config/config, config/config_keys.

#include "config/config.h"

// Zeroes the record and reads the configuration file `path` into it. Returns 0 when the file was
// read, even if some lines were rejected, and -1 when it could not be read. Start-up only.
int load_config(const char *path);

// Stores one setting from the file. Returns 1 when the key is known, 0 otherwise. A text is
// truncated to its field, and then its double quotes are removed if the key says so; a number is
// parsed with parse_number. `value` is never used as a format.
int load_setting(ConfigRecord &record, const char *key, const char *value);

// Stores one setting from a client. A text ends at its first line end, is truncated to its field
// and keeps its quotes; an empty static mask becomes the default one. An unknown key changes
// nothing.
void change_setting(ConfigRecord &record, const char *key, const char *value);
