#pragma once

#include "config/config.h"

// Rebuilds `clients` from a text "host:port,host:port,...": at most ten entries, up to the first
// item that lacks its ":". Lists the entries on standard error. Blanks around a host do not count,
// so that a list may have some behind its commas. A host is an address with all four numbers or in
// a short form ("10.1" is 10.0.0.1), each number decimal, or octal behind a "0", or hexadecimal
// behind "0x"; any other is listed and counted, and nothing is sent to it. Of a port the low 16
// bits count; an empty one is 0.
void parse_restream_clients(const char *text, RestreamClients &clients);
