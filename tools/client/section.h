#pragma once

#include "client/answers.h"
#include "client/link.h"

// Asks for a section. Returns an exit code; if it is not exit_ok, a line on standard error has said
// why. The answer comes without its "cmd" member.
int ask_section(Link &link, const std::string &section, Json &answer);
