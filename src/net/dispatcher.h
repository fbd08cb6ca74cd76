#pragma once

#include <cstdint>

// Decides what to do with each payload that a client sends, and with each JSON command of the data
// source. `payload` must be followed by a zero; `host` and `port` are the requester's, to whom
// replies go. Commands run on the calling thread until they are done; scans and updates take
// seconds.
//
// A JSON payload that does not parse or lacks "cmd", and the commands "wlan", "file", "rc" and
// "updateconfig" without the members they are told by, end the process abnormally by design.

// The control server's ClientPacketHandler: runs on its receive thread.
//
// Stack: a screenshot reply is the largest frame, one 60012-byte relay packet; with the calls
// below it some 70 kB of the 8 MB a thread has.
void dispatch_client_packet(uint8_t *payload, uint16_t length, const char *host, uint16_t port);

// The data source's SourceCommandHandler: JSON only; runs on its receive thread.
void dispatch_source_command(uint8_t *payload, uint16_t length, const char *host, uint16_t port);
