#pragma once

// The recorder: writes the daemon's video to films while a client or the settings ask for it.
// Stands on: beacon_media/film, beacon_media/film_file, beacon_media/film_plan, beacon_media/live,
// beacon_media/still, source/clocks, source/complain.

// Runs until a signal stops it. Returns the program's exit status.
int run_recorder();
