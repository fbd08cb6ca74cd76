#pragma once

// The console's place among the daemon's clients.
// Stands on: beacon_web/board_view, client/clock, client/link.

#include "beacon_web/board_view.h"
#include "client/clock.h"
#include "client/link.h"

#include <functional>
#include <string>

struct BoardLink {
    std::string host;
    uint16_t port = 5252;
    Link link;
    int readable = -1; // a descriptor to poll for reading that stays the same when the link is
                       // opened again
    TimePoint retry{}; // when to try to open the link again, while it is not open
    TimePoint heard{}; // the last packet, or when the link was opened
};

// False, with errno set: the system has no descriptors left.
bool begin_board_link(BoardLink &board, const std::string &host, uint16_t port, BoardView &view);

// Does what is due at `now`: opens the link, which may block while a name is looked up, and keeps
// it registered for all streams. When the board has been silent for a while the link is opened
// anew, as its address or this machine's may have changed.
void step_board_link(BoardLink &board, BoardView &view, TimePoint now);

// Reads what has come, and hands on each packet after noting it in the view.
void read_board_link(BoardLink &board, BoardView &view,
                     const std::function<void(const PacketView &)> &take);
