#pragma once

// Which board is meant when the command line names none.
// Stands on: beaconctl/text_file.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

struct UsualBoard {
    std::string host; // empty: not said
    std::optional<uint16_t> port;
    std::string error; // what is wrong; empty if nothing is
};

// "board.local", "10.0.0.7" or "10.0.0.7:5253".
UsualBoard parse_board(std::string_view text);

// A file with the same in a line, or of lines "host = board.local" and "port = 5252". "#" begins a
// comment.
UsualBoard parse_board_file(std::string_view text);

// What BEACONCTL_HOST says, or else the file beaconctl in XDG_CONFIG_HOME or ~/.config.
UsualBoard usual_board();
