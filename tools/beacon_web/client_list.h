#pragma once

// Who is registered with the daemon of this machine.
// Stands on: client/answers.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct RegisteredClient {
    std::string address; // "192.168.1.30"
    uint16_t port = 0;
    double seconds = 0; // since it registered last
    bool is_data_only = false;
};

// Reads what the daemon writes: a JSON array whose first comma may stand before the first entry.
// Nothing: it is something else, such as the beginning of a list that is just being written.
std::optional<std::vector<RegisteredClient>> parse_client_list(std::string_view text);

// The text of the daemon's file, at most a few kilobytes, which may be half written. Nothing: there
// is none.
std::optional<std::string> read_client_list();

// "192.168.1.30:5000, 10.0.0.7:40000 (data only)"; "nobody".
std::string client_list_words(const std::vector<RegisteredClient> &clients);
