#pragma once

// Gives the daemon a standard error that never makes it wait or ends it.
// Stands on: base/line_sink.

// Opens /dev/null in place of each of the three standard descriptors that is closed, so that
// nothing else gets their numbers. Main thread, before anything is opened.
void fill_standard_descriptors();

// Makes `stderr` a stream that drops a line, and counts it, when standard error has no room for it:
// a pipe or a socket whose reader does not read, or that has none any more. The flags of the
// descriptor stay, since other programs share it, and commands inherit it as it is. Ignores
// SIGPIPE. Main thread, before there is a second thread.
void use_patient_error_stream();

// Writes a line that ends in "\n", past the stream: for a signal handler. Drops it when there is no
// room. Async-signal-safe.
void write_error_line(const char *line);
