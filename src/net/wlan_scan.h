#pragma once

// Scans for Wi-Fi networks.
// Stands on: base/shell.

#include <string>

// Returns the names of the networks in range of an interface, separated by commas; hidden networks
// give empty names. Brings the interface up first. Takes seconds, or a minute when both commands
// hang; a scan that hangs gives no names. Any thread.
std::string wlan_scan(const char *interface);
