#pragma once

#include "config/config.h"

// Zeroes the record and reads the configuration file `path` into it. Returns 0 when the file was
// read, whatever lines in it were rejected, and -1 when it could not be. Start-up only.
int load_config(const char *path);

// Stores one setting, given as the file gives it: 1 when the key is known, 0 otherwise. Texts are
// cut to their field, then lose their double quotes where the key says so; a number is what
// parse_number makes of the value. `value` is never used as a format.
int load_setting(ConfigRecord &record, const char *key, const char *value);

// Stores one setting, given as a client gives it: a text is cut at its first line end and to its
// field, and keeps its quotes; an empty static mask becomes the default one. An unknown key changes
// nothing.
void change_setting(ConfigRecord &record, const char *key, const char *value);
