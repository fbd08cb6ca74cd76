#pragma once

#include <cstddef>

// Short notes to the display process on this board, one datagram each to 127.0.0.1:5255.

// Creates the sender's socket. Start-up, once.
void init_display_notifications();

// Sends one note: the text without its terminating zero, or `length` bytes of any kind. Nobody need
// listen. Any thread.
void notify_display_process(const char *text);
void notify_display_process(const void *data, size_t length);
