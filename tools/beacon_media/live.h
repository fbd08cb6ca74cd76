#pragma once

// The loop of the helpers that do something with the daemon's video while a setting is on.
// Stands on: beacon_media/daemon_stream, beacon_media/role, beacon_media/splitter, source/clocks.

#include "beacon_media/daemon_stream.h"
#include "beacon_media/role.h"
#include "beacon_media/splitter.h"

#include <cstdint>
#include <span>

struct LiveFeed {
    Role role;
    DaemonStream stream;
    Splitter splitter;
    int64_t sound_heard = 0; // when sound last came
    bool is_started = false; // it was switched on, and there is something to stop
};

// What a helper does; `helper` is its own record. Times are those of CLOCK_MONOTONIC in
// nanoseconds.
struct LiveActions {
    bool (*is_on)(void *helper); // switched on? Asked again and again
    void (*take_picture)(void *helper, const Piece &picture, int64_t now);
    void (*take_sound)(void *helper, std::span<const uint8_t> samples, int64_t now);
    void (*look_after)(void *helper, int64_t now); // four times a second while it is on
    void (*stop)(void *helper);                    // it was switched off, after the last picture
};

// Has sound come in the last second?
bool has_sound(const LiveFeed &feed, int64_t now);

// Runs the helper until a signal stops it. Returns the program's exit status.
int run_live(LiveFeed &feed, const LiveActions &actions, void *helper);
