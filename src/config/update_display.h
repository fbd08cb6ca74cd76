#pragma once

// Puts changed display settings into effect.
// Stands on: config/config, config/display_output, config/writer, core/process_control,
// net/display_process.

// Each function is called after the settings of its command have been stored in the record. It runs
// on the command's thread and returns when its shell commands are done.

#include <cjson/cJSON.h>

// Saves and stops the display programs.
void then_display_enabled(const cJSON *command);
void then_dual_hdmi(const cJSON *command);
void then_tft(const cJSON *command);

// Sends a note to the display program, which keeps running, and saves.
void then_display_hflip(const cJSON *command);
void then_display_vflip(const cJSON *command);
void then_display_aspect(const cJSON *command);
void then_display_smooth(const cJSON *command);

// Switches the output as "value2" to "value4" say; the second of each pair also saves it for the
// next boot.
void then_cvbs_test(const cJSON *command);
void then_cvbs_test_and_save(const cJSON *command);
void then_hdmi_test(const cJSON *command);
void then_hdmi_test_and_save(const cJSON *command);
