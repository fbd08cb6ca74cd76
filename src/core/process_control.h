#pragma once

// Stops and signals the board's companion programs.
// Stands on: base/shell, base/text.

// Programs are looked up by name on each call. Their supervisors restart those that are stopped. A
// failure is one line on standard error. Any thread.

// Kills (signal 9) the first process that pidof finds under this name.
void kill_process_by_name(const char *name);

// Sends the recorder SIGUSR1 (10), which tells it that its settings have changed.
void signal_recorder();

// Kills the three TFT display programs.
void stop_tft_display_processes();

// Runs the camera programs' own script, which stops them all.
void stop_camera_processes();
