#pragma once

#include <sys/types.h>

// Counts the instructions of a process, where the machine can: many virtual machines cannot.

struct Instructions {
    double user;
    double kernel;
};

// Two descriptors, -1 where the machine cannot count.
struct Counters {
    int user;
    int kernel;
};

// Counts `pid` from now on, with all threads that it starts from now on.
Counters open_counters(pid_t pid);
void close_counters(Counters &counters);

// What has been counted so far; NAN where it cannot be.
Instructions counted(const Counters &counters);
