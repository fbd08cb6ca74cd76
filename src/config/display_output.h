#pragma once

// Switching the board's picture output. Each runs its commands on the caller's thread.

// Composite output: `standard` is "PAL" or "NTSC", `aspect` "4:3", "14:9" or "16:9", `progressive`
// "P" or empty. With `save` the choice is written to the boot firmware configuration, the board is
// rebooted if HDMI is still on, and the display programs are restarted.
void switch_composite_output(const char *standard, const char *aspect, const char *progressive,
                             bool save);

// HDMI output: `group` is "CEA" or "DMT", `mode` a mode number; both empty: the preferred mode.
// With `save` the choice is written to the boot firmware configuration and the board is rebooted
// if composite output is still on. The display programs are restarted either way.
void switch_hdmi_output(const char *group, const char *mode, bool save);
