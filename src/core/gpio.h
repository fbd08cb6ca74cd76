#pragma once

// The board's GPIO inputs, through the GPIO library.
// Stands on: config/config.

// Configures and starts the GPIO library, and reports the result on standard error. Of the signal
// handlers that the library installs only the one for SIGPIPE stays. If it fails, so does every
// call below. Start-up only.
void start_gpio();

struct ConfigRecord;

// Configures the pins that the settings name as inputs with pull-ups. Any thread.
void use_inputs(const ConfigRecord &config);

// 0, 1, or negative on failure. Any thread.
int read_level(unsigned pin);
