#pragma once

// Stopping and signalling the board's companion programs. Each is looked up by name at the moment
// of the call; their supervisors start stopped ones again. Any thread; failures are one line on
// standard error.

// Kills (signal 9) the first process that pidof finds under this name.
void kill_process_by_name(const char *name);

// Sends the recorder signal 10 (SIGUSR1): its settings have changed.
void signal_recorder();

// Kills the three TFT display programs.
void stop_tft_display_processes();
