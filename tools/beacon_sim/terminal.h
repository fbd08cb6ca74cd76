#pragma once

// The terminal on standard input, set to give each key as it is pressed, unseen. Ctrl-C and Ctrl-Z
// stay what they are.

// Sets it. False after a message: standard input is no terminal.
bool enter_key_mode();

// Sets it back as it was; nothing when it was not set. Also done at exit().
void leave_key_mode();
