#pragma once

// The board's GPIO inputs, through the GPIO library. Where that has failed to start, every call
// below fails too and the level reads as a negative number.

// Configures and starts the GPIO library; says on standard error how it went. Of the signal
// handlers that it sets only SIGPIPE's stays. Start-up only.
void start_gpio();

struct ConfigRecord;

// Makes the pins that the configuration uses inputs with their pull-ups on. Any thread.
void use_inputs(const ConfigRecord &config);

// 0, 1, or negative on failure. Any thread.
int read_level(unsigned pin);
