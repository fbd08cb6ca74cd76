#pragma once

// Starts a program as a child in a session of its own.
// Stands on: nothing else of ours.

#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

// A descriptor here, and its number in the child.
using ChildDescriptor = std::pair<int, int>;

// Starts a program, found in PATH, with an empty signal mask and nothing on its standard input.
// Ctrl-C in the terminal does not reach it. Returns 0, or an errno.
int spawn_program(pid_t &pid, const std::vector<std::string> &arguments,
                  const std::vector<ChildDescriptor> &descriptors);
