#pragma once

// Says on standard error why a command fails.
// Stands on: beaconctl/exit_codes.

#include <string>

// "beaconctl: " and what went wrong, as one line. Returns exit_failed.
int fail(const std::string &what);
