#pragma once

#include "subject.h"
#include "wire.h"

// A subject with the wire connected to it, set up anew for each measurement.

struct Stage {
    Subject subject;
    Wire wire;
};

struct Setup {
    SubjectKind kind;
    int clients;
    LoadKind load;
    Buffers buffers = Buffers::large;
    DaemonMode mode = DaemonMode::normal;
};

// Ends the program when the subject does not relay.
Stage set_up(const char *daemon_path, const Setup &setup);
void tear_down(Stage &stage);
