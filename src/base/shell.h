#pragma once

// Runs shell commands with a time limit, and quotes values for them.
// Stands on: nothing else of ours.

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/types.h>

// A command is started with posix_spawn as /bin/sh -c TEXT, in its own process group. It inherits
// the daemon's standard input, output and error and no other descriptor; all signals are unblocked
// and have their default actions. At the time limit its group is killed, one line on standard error
// names the command, and the caller continues as after a failed command. If a process does not end
// even then, because it waits for a dead disk, one of the next commands reaps it after it has
// ended.

// The default time limit.
constexpr uint32_t command_limit_ms = 30000;

// Runs one command line and waits for it. The result is deliberately not returned: a command that
// fails leaves the state as it is. Processes that it leaves in the background keep running. Any
// thread.
void run_shell(const char *command, uint32_t limit_ms = command_limit_ms);

// Returns `value` as one inert word for the shell, without the blanks and line ends around it.
// These stay as they are: an empty value; a plain one (letters, digits, the characters _ . , : / @
// % + = - and bytes above 127); and a plain one in double quotes, which the shell removes. Any
// other is put in single quotes and arrives unchanged. Every quote is closed. If the command is
// truncated inside the word, either a quote stays open and the shell refuses the command, or the
// word is the start of the value. Another thread may change `value` during the call: the word is
// inert all the same.
std::string shell_word(const char *value);

// Returns `value` for use inside double quotes, without the blanks and line ends around it:
// characters that the shell would interpret there are escaped with a backslash, so that the value
// arrives unchanged.
std::string shell_quoted_text(const char *value);

// Runs one command line and returns what it prints, including zero bytes, but at most `limit`
// bytes; then the pipe is closed. Waits until the command has ended and all writers have closed its
// output. So a command that leaves a writer in the background runs into the time limit, and its
// group is killed. Empty when the command itself did not end in time, because part of an answer may
// be misleading, and when it cannot be started. Any thread.
std::string shell_output_bytes(const char *command, size_t limit,
                               uint32_t limit_ms = command_limit_ms);

// The same, but only up to the first zero byte.
std::string shell_output(const char *command, size_t limit, uint32_t limit_ms = command_limit_ms);

// A command line that runs in parallel with its caller, without a time limit.
struct ShellCommand {
    pid_t pid;  // of the shell, and of its process group
    int output; // read end of a pipe from its standard output, close-on-exec
};

// Starts a command line. Returns false when it cannot be started. Any thread.
bool start_shell(const char *command, ShellCommand &started);

// Kills the process group, closes the pipe and reaps the shell. Waits until the whole group has
// ended, but no longer than a second. Any thread, once.
void end_shell(const ShellCommand &started);
