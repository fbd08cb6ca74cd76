#pragma once

#include <cstdint>
#include <sys/types.h>

// A process under test: the daemon or one of the two baselines, started afresh for every
// measurement, alone on its core.

enum class SubjectKind { daemon, plain, floor };
constexpr int subject_kinds = 3;

struct Subject {
    SubjectKind kind;
    pid_t pid;
};

// Processor time used so far. The total is exact; how it divides into user and system comes from
// the kernel's sampling and is good over seconds of processor time only.
struct CpuTime {
    double total_us;
    double user_us;
    double system_us;
};

const char *subject_name(SubjectKind kind);
// The shared-memory name of the ring that the subject reads.
const char *ring_name(SubjectKind kind);

// Starts the subject with fresh rings; `daemon_path` is used for the daemon alone.
Subject start_subject(SubjectKind kind, const char *daemon_path, int clients);
void stop_subject(Subject &subject);
bool has_ended(const Subject &subject);

CpuTime cpu_time(const Subject &subject);

// Resident private bytes, clean and dirty, of all mappings but the frame rings.
uint64_t private_bytes_beyond_rings(const Subject &subject);
