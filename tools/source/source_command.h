#pragma once

#include <optional>
#include <string>
#include <string_view>

// A command that the daemon sends to the data source: a "!" and a JSON object of texts.
struct SourceCommand {
    std::string cmd;
    std::string name;
    std::string param;
    std::string values[3]; // "value", "value2", "value3"
};

// Reads a command; members that are missing, or no texts, are empty. Nothing when the datagram is
// no command, or not JSON (clients' texts come through as they are).
std::optional<SourceCommand> parse_source_command(std::string_view datagram);

// Is it the one that comes every second whatever happens, telling how sticks move the gimbal?
bool is_keep_alive(const SourceCommand &command);

// A datagram as one line of text: what is not printable ASCII, and backslashes, as "\x0a".
std::string escaped_line(std::string_view datagram);
