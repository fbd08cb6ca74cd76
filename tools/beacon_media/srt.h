#pragma once

// The SRT restreamer: sends the daemon's video to whoever connects, or to the address that the
// settings name.
// Stands on: beacon_media/live, beacon_media/live_output, source/complain.

// Runs until a signal stops it. Returns the program's exit status.
int run_srt_restreamer();
