#pragma once

// Tells what the daemon does with a command, and refuses those that would end it.
// Stands on: client/packet.

#include <string>
#include <string_view>

// By design the daemon ends when it gets a JSON command that it cannot parse, or that lacks a
// member it needs. Check a command that a person has typed before you send it; commands that the
// library makes need no check.

// Why a command is refused.
enum class Harm {
    none,         // it is not refused
    ends_daemon,  // the daemon ends, and its supervisor starts it again
    ignored,      // the daemon drops it without a word
    read_in_part, // it is longer than the daemon reads
};

struct CheckedCommand {
    std::string text;   // the payload to send; empty when the command is refused
    std::string reason; // why it is refused, as the rest of a sentence: "it is not valid JSON"
    Harm harm = Harm::none;
    std::string effect; // what the daemon does with it: "it answers with ..."
};

// Takes a JSON object, or any text after a "!", which the daemon passes on to the camera's
// program.
CheckedCommand check_command(std::string_view text);
