#pragma once

#include <string>
#include <vector>

// Counts the daemon's user instructions on the way of video from the ring to the system call, under
// valgrind's callgrind, on any machine. Not among them are the instructions that read the clock in
// the kernel's part of user space: valgrind makes a system call of it.

bool callgrind_is_installed();

// Turns this process into a daemon that is counted in take_frame, shared_memory_has_room and
// relay_video, and in what these call.
[[noreturn]] void become_traced(const char *daemon_path);

// What a function took itself, without what it called.
struct FunctionCost {
    std::string name; // without parameters or version
    double instructions;
};

// The functions counted, the dearest first, once the daemon has ended by SIGTERM; none when there
// is no count.
std::vector<FunctionCost> traced_functions();
