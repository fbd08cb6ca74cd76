#pragma once

#include <cstddef>

// Runs one command line through /bin/sh and waits for it. The result is deliberately not
// returned: a command that fails leaves the state as it is. Any thread.
void run_shell(const char *command);

// Writes `value` into `word` (at most `size` - 1 characters and a zero) in a form that the shell
// takes as the value and nothing else. A plain value (letters, digits, and the characters
// _ . , : / @ % + = - , and bytes above 127, bare or inside one pair of double quotes) stays as it
// is, so does an empty one; any other is put in single quotes. A cut word keeps no open quote
// that would swallow what follows: the shell refuses the whole line. Returns `word`.
char *shell_word(char *word, size_t size, const char *value);
