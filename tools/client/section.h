#pragma once

// Asks for the settings of a section.
// Stands on: client/answers, client/command_text, client/request, client/setting_rows.

#include "client/answers.h"
#include "client/request.h"

#include <nlohmann/json.hpp>
#include <string>

enum class SectionResult {
    none,       // no answer yet
    settings,   // they have come
    unknown,    // there is no such section
    unreadable, // the answer was cut, or a text in it holds quotes that end it
    busy,       // the display is being asked about by another client; ask again
};

struct SectionAnswer { // NOLINT(bugprone-exception-escape): its destructor does not throw
    SectionResult result = SectionResult::none;
    Json settings; // an object: the section's members in the daemon's order
};

// Asks for a section, three times within `seconds`. For "display" the daemon runs programs, so the
// answer may take a second or more. When the request is given up, the result is `none` or `busy`.
Request section_request(const std::string &section, double seconds, SectionAnswer &answer);
