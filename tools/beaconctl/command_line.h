#pragma once

// Reads the command line and carries it out; returns the exit code.
int run_command_line(int argc, char **argv);
