#pragma once

// Puts changed settings of recording and of the board's own camera into effect.
// Stands on: config/config, config/writer, core/gpio, core/process_control.

// Each function is called after the settings of its command have been stored in the record. It runs
// on the command's thread and returns when its shell commands are done.

#include <cjson/cJSON.h>

// Sets up the inputs, saves, removes the recorder's marker, signals the recorder and stops the
// camera programs.
void then_recording(const cJSON *command);

// Switches the live recording state; nothing is saved.
void then_rec(const cJSON *command);

// Saves and stops the capture program.
void then_internal_camera(const cJSON *command);
