#pragma once

// Asks for a section of the settings, and says why it cannot be had.
// Stands on: beaconctl/board, beaconctl/exit_codes, beaconctl/fail, beaconctl/setting_names,
// client/answers, client/link, client/section, client/setting_rows, client/wait.

#include "client/answers.h"
#include "client/link.h"

#include <string>

// Asks for as long as the link's timeout. Returns an exit code; if it is not exit_ok, a line on
// standard error has said why.
int ask_section(Link &link, const std::string &section, Json &settings);
