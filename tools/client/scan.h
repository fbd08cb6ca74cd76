#pragma once

// Asks for a Wi-Fi scan.
// Stands on: client/answers, client/command_text, client/mend, client/request.

#include "client/request.h"

#include <string>
#include <vector>

struct ScanAnswer {
    bool is_readable = false;
    std::vector<std::string> names; // UTF-8; a hidden network's is empty
};

// Asks once, and gives up after `seconds`. A scan takes some seconds, in which the daemon may
// answer no other request. `interface` is "int" or "ext", or "cam" or "lan" for the one that the
// settings camera_iface or wifi_iface name; nothing is answered when that setting is empty.
Request scan_request(const std::string &interface, double seconds, ScanAnswer &answer);
