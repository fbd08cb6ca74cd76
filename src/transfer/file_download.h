#pragma once

#include "net/relay_packet.h"

#include <cstddef>
#include <cstdint>

// File download: a client asks for one piece of a file at a time, a worker thread reads it and
// sends it back as a relay_type_file packet. One request is pending at a time; a newer one replaces
// it. Only regular files are served; everything else reads as missing. A file whose reads would
// wait for news ends where they would.
//
// The worker looks for a request every 30 ms, and every 0.1 ms during a transfer: from its first
// request until the piece that reaches the end of the file, or until 50000 turns in a row, some ten
// seconds, have found none.

// The piece's layout in the payload; numbers are little-endian.
constexpr size_t piece_length_at = 0;    // u16, data bytes in this piece
constexpr size_t piece_offset_at = 2;    // u32, of the piece in the file
constexpr size_t piece_full_size_at = 6; // u32, of the file
constexpr size_t piece_data_at = 10;
constexpr size_t piece_capacity = 59990; // data bytes
static_assert(piece_data_at + piece_capacity == relay_payload_capacity);

// Starts the worker. Returns 0, or -1 when its thread cannot be had. Start-up only.
int init_file_download();

// Asks for the piece of `path` at `offset`, to be sent to `host` and `port`. A path is cut to 255
// characters. Any thread; waits while a piece is being read and sent.
void request_file_download(const char *host, uint16_t port, const char *path, int32_t offset);

// Forgets the pending request and what is known of its file. Any thread.
void reset_file_download();
