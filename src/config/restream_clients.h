#pragma once

// Parses and checks the list of hosts that get the raw video stream.
// Stands on: config/config.

#include "config/config.h"

// Rebuilds `clients` from a text "host:port,host:port,...". Takes at most ten entries and stops at
// the first one without a ":". Lists the entries on standard error. Blanks around a host are
// ignored, so a list may have them after its commas. A host is an address with all four numbers or
// in a short form ("10.1" is 10.0.0.1); a number is decimal, octal with a leading "0", or
// hexadecimal with a leading "0x". Any other host is listed and counted, but nothing is sent to it.
// Only the low 16 bits of a port count; an empty port is 0. Nothing is sent to the daemon's own
// ports on this board either: the daemon would take its own video for commands.
void parse_restream_clients(const char *text, RestreamClients &clients);

// While restreaming is enabled, prints one line for each reason why something is not sent: a block
// size of 0 or less, hosts that are not addresses, each destination that is the daemon's own port.
void report_restreaming(const ConfigRecord &config);

// Checks again which destinations are the daemon's own ports, since the board's addresses may have
// changed. Prints a line for each new one while restreaming is enabled. If the list is parsed at
// the same time, an entry may be out of date until the next call. One thread only.
void recheck_restream_clients(ConfigRecord &config);
