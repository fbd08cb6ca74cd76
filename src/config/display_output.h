#pragma once

// Switches the board's video output.
// Stands on: config/boot_turn, core/process_control.

// Both functions run their commands on the caller's thread and wait for them. Any thread.

// Switches to composite output. `standard` is "PAL" or "NTSC", `aspect` is "4:3", "14:9" or "16:9",
// `progressive` is "P" or empty. With `save` the choice is written to the boot firmware
// configuration, the board is rebooted if HDMI is still on, and the display programs are restarted.
void switch_composite_output(const char *standard, const char *aspect, const char *progressive,
                             bool save);

// Switches to HDMI output. `group` is "CEA" or "DMT" and `mode` a mode number; if both are empty,
// the preferred mode is used. With `save` the choice is written to the boot firmware configuration,
// and the board is rebooted if composite output is still on. The display programs are restarted in
// either case.
void switch_hdmi_output(const char *group, const char *mode, bool save);
