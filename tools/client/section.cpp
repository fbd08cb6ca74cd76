#include "client/section.h"

#include "beaconctl/exit_codes.h"
#include "client/command_text.h"
#include "client/setting_rows.h"

#include <nlohmann/json.hpp>

static std::string section_list() {
    std::string list;
    for (const char *name : section_names()) {
        list += (list.empty() ? "" : " ") + std::string(name);
    }
    return list;
}

int ask_section(Link &link, const std::string &section, Json &answer) {
    const std::string command = command_text({{"cmd", "config_request"}, {"param", section}});
    std::optional<Json> parsed;
    const auto take = [&](const PacketView &packet) {
        const auto text = answer_text(packet, "config_answer");
        if (!text) {
            return false;
        }
        parsed = parse_answer(*text);
        // While another client's question about the display is being answered, ours is not.
        return section != "display" || !parsed || parsed->size() > 1;
    };
    const Outcome outcome = request(link, command, link.timeout, 3, take);
    if (outcome != Outcome::answered) {
        if (parsed) {
            return fail("the display is being asked about by somebody else: try again");
        }
        return report_silence(link, outcome);
    }
    if (!parsed) {
        return fail("the board's answer cannot be read: it was cut, or a text in it holds quotes "
                    "that end it");
    }
    answer = std::move(*parsed);
    answer.erase("cmd");
    if (answer.empty()) {
        return fail("there is no section \"" + section + "\"; there are: " + section_list());
    }
    return exit_ok;
}
