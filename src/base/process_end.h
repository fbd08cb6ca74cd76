#pragma once

// Ends the process, normally or abnormally.
// Stands on: nothing else of ours.

// Exit statuses, as the outside supervisor sees them.
constexpr int exit_status_failure = 1; // a failed start-up step, a failed accept, a new app type
constexpr int exit_status_restart = 2; // a client asked for a restart
constexpr int exit_status_read_failed = 3;

// Sets a function that the functions below call before they end the process, on the thread that
// ends it. It can wait for work of other threads that must be finished; it must return soon.
// Start-up only, before there are other threads.
void prepare_process_end(void (*prepare)());

// Ends the process with `status`. No destructors or exit handlers run while other threads are still
// alive, so the status is exact. Standard error is unbuffered, so nothing is lost.
[[noreturn]] void end_process(int status);

// Prints "Fatal: REASON" and ends the process abnormally (SIGABRT). For the few inputs that must
// end it by design; the outside supervisor then starts it again.
[[noreturn]] void end_process_abnormally(const char *reason);
