#pragma once

#include <string>

// The names of the networks in range of an interface, separated by commas; hidden networks give
// empty names. Brings the interface up first. Takes seconds. Any thread.
std::string wlan_scan(const char *interface);
