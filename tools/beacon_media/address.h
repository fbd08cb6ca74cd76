#pragma once

// Looks at addresses from the settings and the command line.
// Stands on: nothing else of ours.

#include <string>

// The address for messages, without the user's name and password, and what follows a "?".
std::string shown_address(const std::string &address);

// The same for an RTMP address, without the key that it may end in.
std::string shown_rtmp_address(const std::string &address, const std::string &key);

// What is wrong with an RTMP address that is followed by the key (which may be empty and is then
// the address's own end), or "". Nothing is said about what only the server knows.
std::string rtmp_fault(const std::string &address, const std::string &key);
