#pragma once

// Reaches the board that the command line names, and says why it cannot be reached.
// Stands on: beaconctl/exit_codes, beaconctl/fail, beaconctl/stop, client/link, client/wait.

#include "client/link.h"
#include "client/wait.h"

#include <cstdint>
#include <optional>
#include <string>

// Where the daemon is, as the command line says.
struct Target {
    std::string host = "127.0.0.1";
    uint16_t port = 5252;
    std::optional<double> timeout; // seconds; without it, what suits the command
};

// Opens the link. False: a line on standard error says why.
bool open_board(Link &link, const Target &target);

// Asks who is there, for as long as the link's timeout.
Outcome ask_board(Link &link, BoardInfo &info);

// Opens the link and checks that the daemon is there. Returns an exit code; if it is not exit_ok, a
// line on standard error has said why.
int reach_board(Link &link, const Target &target, BoardInfo &info);

// True: the daemon has no room for another client, and a line on standard error says so.
bool report_full_house(const BoardInfo &info);

// Says on standard error why there was no answer, and returns the exit code.
int report_silence(const Link &link, Outcome outcome);
