#pragma once

// Reads the command line and runs the command.
// Stands on: beaconctl/board, beaconctl/commands, beaconctl/exit_codes, beaconctl/fail,
// beaconctl/near_word, beaconctl/screen, beaconctl/setting_words, beaconctl/usual_board.

// Returns the exit code. What is wrong with the command line is said on standard error.
int run_command_line(int argc, char **argv);
