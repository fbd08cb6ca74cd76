#pragma once

// Changes settings on the running system.
// Stands on: config/config, config/loader, config/update_board, config/update_display,
// config/update_movement, config/update_network, config/update_recording, config/update_streaming.

// Carries out one "updateconfig" command. `text` is a JSON object of strings. Its "param" selects
// what changes, which commands run and which programs are restarted; an unknown "param" changes
// nothing. A missing value reads as 0 or empty; a missing "param" ends the process abnormally, by
// design.
//
// Values are never used as a format, and the shell does not interpret them. Each value is one word
// of its command; the values of "cvbs" and "hdmi" together form one word for tvservice.
//
// Any thread; everything runs on the caller's thread, and the call returns when it is done.
void apply_config_update(const char *text);
