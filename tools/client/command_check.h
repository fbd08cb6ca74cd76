#pragma once

#include <string>
#include <string_view>

// The daemon ends, by design, on a JSON command that it cannot parse or that lacks the members it
// is told by. Such commands are refused before they are sent.

struct CheckedCommand {
    std::string text;   // the command as it is to be sent; empty when it is refused
    std::string reason; // why it is refused
    bool is_too_long = false;
};

// Takes a JSON object, or, behind a "!", whatever the data source is to get.
CheckedCommand check_command(std::string_view text);
