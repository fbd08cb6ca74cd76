#pragma once

// Finds the boards of the networks that this machine is in.
// Stands on: client/packet.

#include "client/packet.h"

#include <cstdint>
#include <optional>
#include <string>

struct FoundBoard {
    std::string address; // IPv4
    BoardInfo info;
};

// A socket to ask with, close-on-exec, which the caller closes and polls for reading; -1 if there
// is none (errno says why).
int open_discovery();

// Asks who is there: everybody in each network that an interface with broadcast is in, and this
// machine itself. Datagrams get lost, so ask more than once.
void ask_everybody(int socket, uint16_t port);

// The next answer, without waiting. A board with several addresses answers from each. Nothing when
// there is nothing more to read.
std::optional<FoundBoard> next_found(int socket);
