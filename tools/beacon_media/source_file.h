#pragma once

// Runs the source that a file names, so that one line in it is a board's camera.
// Stands on: beacon_media/options, beacon_media/source_line, beacon_media/source_run,
// source/complain, source/signals.

// Waits until the file names a source, and runs it. A line that is wrong is told once; then it
// waits for another one. Returns the program's exit status.
int run_source_from(const char *file);
