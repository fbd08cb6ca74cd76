#pragma once

// Runs a shell command and reads what it prints.
// Stands on: source/complain, source/spawn.

#include <string>
#include <sys/types.h>

struct Child {
    pid_t pid = -1;
    int fd = -1; // its standard output
};

// Starts `sh -c COMMAND` in a session of its own, so that Ctrl-C in the terminal does not end it.
// False after a message.
bool start_child(Child &child, const std::string &command, bool is_nonblocking);

// Ends the command and everything that it started, and closes its output. Returns its status in
// words, such as "ended with status 1".
std::string end_child(Child &child);
