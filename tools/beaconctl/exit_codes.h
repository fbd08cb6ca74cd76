#pragma once

// How beaconctl ends; the manual page and --help tell the same.
constexpr int exit_ok = 0;
constexpr int exit_failed = 1; // the board answered, and what was asked for could not be had
constexpr int exit_usage = 2;  // the command line cannot be taken
constexpr int exit_silent = 3; // the daemon does not answer
