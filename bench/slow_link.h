#pragma once

#include "load.h"

// Video to nine clients while one more is behind a link of a kilobit a second, which script/bench
// provides.

struct SlowLinkResult {
    bool is_measured;       // false where the kernel makes no slow links
    double status_a_second; // records at the first of the other clients
    double part_delivered;  // of the video, at the others
};

SlowLinkResult measure_slow_link(const char *daemon_path, const Load &video);
