#pragma once

// Reads the commands that the daemon sends to the camera.
// Stands on: nothing else of ours.

#include <optional>
#include <string>
#include <string_view>

// A "!" and a JSON object of strings.
struct SourceCommand {
    std::string cmd;
    std::string name;
    std::string param;
    std::string values[3]; // "value", "value2", "value3"
};

// Reads a command. Members that are missing or not strings are empty. Nothing when the datagram is
// not a command, or not JSON: clients' texts arrive unchanged.
std::optional<SourceCommand> parse_source_command(std::string_view datagram);

// Is it the one that comes every second in any case, and says how sticks move the gimbal?
bool is_keep_alive(const SourceCommand &command);

// A datagram as one line of text: backslashes, and whatever is not printable ASCII, as "\x0a".
std::string escaped_line(std::string_view datagram);
