#pragma once

// Stands in for the camera program that the daemon starts, where the board has only its successor.
// Stands on: beacon_media/raspivid_words, source/complain.

// Runs rpicam-vid with the options translated; it ends with this process. Returns its exit status.
int run_raspivid(int argc, char **argv);
