#pragma once

#include "config/config.h"

// Rebuilds `clients` from a text "host:port,host:port,...": at most ten entries, up to the first
// item that lacks a host or a port. Lists the entries on standard error. A host that is no dotted
// address is listed and counted, and nothing is sent to it.
void parse_restream_clients(const char *text, RestreamClients &clients);
