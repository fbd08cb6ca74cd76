#pragma once

// Changes settings on the running system. `text` is one "updateconfig" command, a JSON object of
// strings; its "param" selects what changes, which commands run and which programs are restarted;
// an unknown one changes nothing. A missing value reads as 0 or empty; a missing "param" ends the
// process abnormally, by design.
//
// Values are copied plainly: none is ever a format, and the shell interprets nothing in them. In a
// command each is one word; those of "cvbs" and "hdmi" make one word together for tvservice.
//
// Any thread; everything runs on the caller's thread until it is done.
void apply_config_update(const char *text);
