#pragma once

// The TCP data server: one client at a time gets the raw video.
// Stands on: net/tcp_stream.

#include <cstdint>

// What the client sends is read and discarded. A lost client is detected within 30 seconds, by
// TCP's keep-alive or by tcp_stream.h; up to four minutes later if it had stopped reading before,
// because the kernel then asks it ever more rarely.

// Listens on `port` and starts the threads. Returns 0, or 1 on failure. A failure prints a line on
// standard error, unless only a thread could not be started. Start-up only.
int init_tcp_server(uint16_t port);
