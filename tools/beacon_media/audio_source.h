#pragma once

// The board's microphone as the daemon's source of sound, while the settings ask for it.
// Stands on: beacon_media/engine, beacon_media/exchange, beacon_media/role, source/clocks,
// source/complain.

// Runs until a signal stops it. Returns the program's exit status.
int run_audio_source();
