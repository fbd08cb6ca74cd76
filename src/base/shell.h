#pragma once

#include <cstddef>
#include <string>

// Runs one command line through /bin/sh and waits for it. The result is deliberately not
// returned: a command that fails leaves the state as it is. Any thread.
void run_shell(const char *command);

// Writes `value` into `word` (at most `size` - 1 characters and a zero) in a form that the shell
// takes as the value and nothing else. A plain value (letters, digits, and the characters
// _ . , : / @ % + = - , and bytes above 127, bare or inside one pair of double quotes) stays as it
// is, so does an empty one; any other is put in single quotes. A cut word keeps no open quote
// that would swallow what follows: the shell refuses the whole line. `value` may change meanwhile,
// as the settings do: what stands in the word is inert all the same. Returns `word`.
char *shell_word(char *word, size_t size, const char *value);

// Like shell_word, for a value that stands inside double quotes already: what the shell would
// interpret there is escaped with a backslash.
char *shell_quoted_text(char *text, size_t size, const char *value);

// Runs one command line and returns what it prints, up to the first zero and at most `limit` bytes;
// empty when it cannot be started. Waits for its end. Any thread.
std::string shell_output(const char *command, size_t limit);
