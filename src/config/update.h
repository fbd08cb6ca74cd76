#pragma once

// Changes settings on the running system. `text` is one "updateconfig" command, a JSON object;
// its "param" selects what changes, an unknown one changes nothing. May be called from any thread;
// commands run on their caller's thread until they are done.
void apply_config_update(const char *text);
