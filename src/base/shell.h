#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

// Runs one command line through /bin/sh and waits for it. The result is deliberately not
// returned: a command that fails leaves the state as it is. Any thread.
void run_shell(const char *command);

// `value` in a form that the shell takes as one word and interprets nothing in. A plain value
// (letters, digits, the characters _ . , : / @ % + = - and bytes above 127) stays as it is, and so
// does one in a pair of double quotes, which the shell takes off, and an empty one. Any other is
// put in single quotes and arrives unchanged. Every quote is closed. A command that is cut inside
// the word has a quote open at its end, so that the shell refuses it, or holds the start of the
// value. `value` may change meanwhile, as the settings do: the word is inert all the same.
std::string shell_word(const char *value);

// `value` for a place inside double quotes: what the shell would interpret there is escaped with a
// backslash, so that it arrives unchanged.
std::string shell_quoted_text(const char *value);

// Reads `size` bytes, fewer only at the end or on an error; a signal that interrupts the reading
// ends it not. Returns how many. Any thread.
size_t read_pipe(FILE *pipe, void *data, size_t size);

// Runs one command line and returns what it prints, up to the first zero and at most `limit` bytes;
// empty when it cannot be started. Waits for its end. Any thread.
std::string shell_output(const char *command, size_t limit);
