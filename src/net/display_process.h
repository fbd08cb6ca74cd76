#pragma once

// Sends short notes to the display process on this board.
// Stands on: base/ipv4.

#include <cstddef>

// Each note is one datagram to 127.0.0.1:5255.

// Creates the sending socket. Start-up, once.
void init_display_notifications();

// Sends one note: a text without its terminating zero, or `length` bytes. It is lost when nobody
// listens. Any thread.
void notify_display_process(const char *text);
void notify_display_process(const void *data, size_t length);
