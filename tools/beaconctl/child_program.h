#pragma once

// Starts another program that reads what beaconctl writes.
// Stands on: nothing else of ours.

#include <string>
#include <sys/types.h>
#include <vector>

struct ChildProgram {
    pid_t pid = -1;
    int input = -1; // the program reads what is written here
};

// Is there a program of that name in PATH?
bool has_program(const std::string &name);

// Starts words[0] with the other words, in a process group of its own, so that Ctrl-C reaches only
// beaconctl. False: errno says why.
bool start_program(const std::vector<std::string> &words, ChildProgram &child);

// Closes its input and waits until it has ended. If `signal` is not 0, it is sent first, and the
// program is killed if it has not ended two seconds later.
// Returns its exit status; 128 and the signal's number if one ended it.
int end_program(ChildProgram &child, int signal);
