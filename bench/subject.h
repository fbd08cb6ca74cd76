#pragma once

#include "counters.h"

#include <cstdint>
#include <sys/types.h>

// A process under test: the daemon or one of the relays that it is compared with, started anew for
// every measurement and alone on its core.

enum class SubjectKind { daemon, plain, limit, gstreamer };
constexpr int subject_kinds = 4;

// What a subject is to relay.
enum class LoadKind { data, video };

struct Subject {
    SubjectKind kind;
    LoadKind load; // that GStreamer can relay; the others relay both
    pid_t pid;
    int stream; // to GStreamer: one message for each block of video; -1 for the others
    Counters counters;
};

enum class DaemonMode {
    normal,            // set to record to a disk that does not exist, so that it runs no commands
    searching_storage, // as it comes: it runs mount commands ten times a second
    traced,            // under callgrind: see traced.h
};

// How to start the daemon.
struct DaemonPlan {
    const char *path;
    DaemonMode mode;
};

// Processor time used so far. The total is exact. The division into user and system time comes from
// the kernel's sampling and is accurate only over seconds of processor time.
struct CpuTime {
    double total_us;
    double user_us;
    double system_us;
    double ended_children_us; // of programs that it ran and waited for, in whole ticks
};

const char *subject_name(SubjectKind kind);
// The shared-memory name of the ring that the subject reads.
const char *ring_name(SubjectKind kind);

// Starts the subject with new rings. `load` is what it is going to relay.
Subject start_subject(SubjectKind kind, const DaemonPlan &daemon, int clients, LoadKind load);
void stop_subject(Subject &subject);
// Asks it to end and waits until it has; it must be stopped nevertheless.
void end_subject(Subject &subject);
bool has_ended(const Subject &subject);

CpuTime cpu_time(const Subject &subject);

// Resident private bytes, clean and dirty, of all mappings but the frame rings.
uint64_t private_bytes_beyond_rings(const Subject &subject);
