#pragma once

// Switches the terminal on standard input to single keys.
// Stands on: source/complain.

// Makes the terminal pass on each key as it is pressed, without showing it. Ctrl-C and Ctrl-Z keep
// working. False after a message: standard input is not a terminal.
bool enter_key_mode();

// Restores the terminal, if it was changed. exit() does this, too.
void leave_key_mode();
