#include "beaconctl/section.h"

#include "beaconctl/board.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/fail.h"
#include "beaconctl/setting_names.h"
#include "client/section.h"
#include "client/setting_rows.h"
#include "client/wait.h"

#include <utility>

static std::string section_list() {
    std::string list;
    for (const char *name : section_names()) {
        list += (list.empty() ? "" : " ") + std::string(name);
    }
    return list;
}

int ask_section(Link &link, const std::string &section, Json &settings) {
    SectionAnswer answer;
    const Outcome outcome = ask(link, section_request(section, link.wait.timeout, answer));
    if (outcome != Outcome::answered && answer.result == SectionResult::none) {
        return report_silence(link, outcome);
    }
    switch (answer.result) {
    case SectionResult::busy:
        return fail("another client is asking about the display: try again");
    case SectionResult::unknown:
        return fail("there is no section \"" + section + "\"" + group_hint(section, ";") +
                    " there are: " + section_list());
    case SectionResult::settings:
        settings = std::move(answer.settings);
        return exit_ok;
    case SectionResult::unreadable:
    case SectionResult::none:
        break;
    }
    return fail("the board's answer cannot be read: it was cut, or a text in it holds quotes "
                "that end it");
}
