#pragma once

#include "subject.h"

// GStreamer's multiudpsink as a relay. It gets packets with their headers, as it adds none: data
// from port 5000, video from a socket on which each message is a block.

// Is gst-launch-1.0 installed?
bool gstreamer_is_installed();

// Turns this process into it. `stream` is the socket that video comes from.
[[noreturn]] void become_gstreamer(LoadKind load, int clients, int stream);
