#pragma once

// Ctrl-C, SIGTERM and SIGHUP, which end a command between two of its steps.
// Stands on: nothing else of ours.

// From now on Ctrl-C, SIGTERM and SIGHUP only make stop_requested() true, and a broken pipe is an
// error of write(). A SIGHUP that nohup has switched off stays so. Call once, before anything else.
void catch_stop_signals();

bool stop_requested();

// stop_requested() is false again, until the next Ctrl-C or SIGTERM: from now on SIGHUP is ignored,
// because a closed terminal and the shell in it may each send one.
void forget_stop();
