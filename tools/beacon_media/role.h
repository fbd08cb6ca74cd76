#pragma once

// What every role of the program has: it runs until a signal stops it, and waits without cost while
// its setting switches it off.
// Stands on: beacon_media/board_settings, source/complain, source/signals.

#include "beacon_media/board_settings.h"

#include <string>

struct Role {
    int signals = -1;
    BoardSettings settings;
    bool has_reread = true; // since role_goes_on() was called last
    bool ends_in_time = false;
    std::string said; // the last complaint
};

// Call it once, first. False after a message.
bool open_role(Role &role);

// Waits for a signal, at most so long, and reads the settings again after SIGUSR1. False: the role
// is to end.
bool role_goes_on(Role &role, int milliseconds);

// From now on the process ends within about a second of a signal to stop, whatever it waits for: a
// name that is looked up keeps the SRT element for many seconds.
void end_in_time(Role &role);

// A complaint that is not made twice in a row. After forget_complaint() it may be made again.
void complain_once(Role &role, const std::string &line);
void forget_complaint(Role &role);
