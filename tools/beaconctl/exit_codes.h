#pragma once

// The exit codes, as the manual page and --help list them.
// Stands on: nothing else of ours.

constexpr int exit_ok = 0;
constexpr int exit_failed = 1; // the board answered, but the request failed
constexpr int exit_usage = 2;  // the command line is wrong
constexpr int exit_silent = 3; // the daemon does not answer
