#pragma once

// File download: sends a client one piece of a file at a time.
// Stands on: net/relay, net/relay_packet, transfer/file_piece_layout, transfer/piece_reader,
// transfer/transfer_lock.

#include <cstdint>

// A client requests one piece at a time. A worker thread passes the request to a reader thread,
// which reads the piece and sends it back as a relay_type_file packet. One request is pending at a
// time, and a newer one replaces it. Only regular files are served; anything else is reported as
// missing, and so is a file of 2 GiB or more, whose size does not fit in a piece. If a read would
// block, as in some files of /proc, the piece ends there.
//
// When a disk does not answer, the worker abandons the reader after 250 ms and serves the next
// request with a new one. The abandoned reader sends its piece late, unless another one has been
// requested by then; a repeated request for its piece is left to it. While four readers are
// abandoned, everything else is reported as missing.
//
// The worker checks for a request every 30 ms, and every 0.1 ms during a transfer. A transfer
// begins with its first request. It ends with the piece that reaches the end of the file, or after
// 50000 checks in a row (some ten seconds) without a request.

// Starts the worker and the first reader. Returns 0, or -1 when a thread cannot be started.
// Start-up only.
int init_file_download();

// Requests the piece of `path` at `offset`, to be sent to `host` and `port`. An empty path, or one
// of more than 255 characters, is reported as missing. Any thread; blocks while a piece is being
// sent, not while one is being read.
void request_file_download(const char *host, uint16_t port, const char *path, int32_t offset);

// Drops the pending request and what is known about its file. Any thread.
void reset_file_download();
