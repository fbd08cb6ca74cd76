#pragma once

// The RTMP restreamer: sends the daemon's video to the servers that the settings name.
// Stands on: beacon_media/address, beacon_media/live, beacon_media/live_output, source/complain.

// Runs until a signal stops it. Returns the program's exit status.
int run_rtmp_restreamer();
