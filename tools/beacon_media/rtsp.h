#pragma once

// The RTSP server's process: serves the daemon's video while the setting is on.
// Stands on: beacon_media/engine, beacon_media/live, beacon_media/rtsp_server, source/clocks,
// source/complain.

// Runs until a signal stops it. Returns the program's exit status.
int run_rtsp_server();
