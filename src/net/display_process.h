#pragma once

// Short notes to the display process on this board, one text datagram each to 127.0.0.1:5255.

// Creates the sender's socket. Start-up, once.
void init_display_notifications();

// Sends the text without its terminating zero. Any thread.
void notify_display_process(const char *text);
