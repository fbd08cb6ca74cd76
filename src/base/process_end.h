#pragma once

// Exit statuses that the outside supervisor sees.
constexpr int exit_status_failure = 1; // a failed start-up step, a failed accept, a new app type
constexpr int exit_status_restart = 2; // a client asked for a restart
constexpr int exit_status_read_failed = 3;

// Ends the process with `status` at once: no destructors and no exit handlers run beside threads
// that still live, so the status is exact. Standard error is unbuffered and loses nothing.
[[noreturn]] void end_process(int status);

// Ends the process abnormally (SIGABRT) after the line "Fatal: REASON": for the few inputs that
// must end it by design, so that the outside supervisor starts it anew.
[[noreturn]] void end_process_abnormally(const char *reason);
