#pragma once

// Puts changed settings of the kind of camera, of radio control and of the file system into effect.
// Stands on: config/boot_turn, config/config, config/writer, core/process_control.

// Each function is called after the settings of its command have been stored in the record. It runs
// on the command's thread and returns when its shell commands are done.

#include <cjson/cJSON.h>

// Only saves.
void then_save(const cJSON *command);

// Saves and ends the process; the supervisor starts it again for the new kind of camera.
void then_app_type(const cJSON *command);

// Saves and stops the program that reads the receivers.
void then_rc(const cJSON *command);

// Saves, and remounts the file systems read-write if `fs_rw` is on.
void then_fs_rw(const cJSON *command);
