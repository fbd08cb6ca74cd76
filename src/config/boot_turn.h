#pragma once

// Lets one thread at a time save to, mount or unmount the boot partition.
// Stands on: base/pause, base/shell.

// The flag "configuration busy" is set while a thread has the turn. Any thread may call these
// functions; the turn is not recursive.

// Waits for the turn, and prints a line every 0.1 seconds while another thread has it.
void take_boot_turn();

// Ends the turn.
void end_boot_turn();

// Waits until no thread has the turn or waits for it, but at most one second, and takes the turn
// for good. For the end of the process.
void end_boot_turns();

// Runs "reboot" when no thread has the turn or waits for it, or after one second.
void reboot_between_turns();
