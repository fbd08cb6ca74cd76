#include "beaconctl/answers.h"

#include "beaconctl/exit_codes.h"
#include "beaconctl/mend.h"
#include "beaconctl/setting_rows.h"

#include "net/relay_packet.h"

#include <cstdio>

std::string command_text(const Json &members) {
    return members.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::optional<Json> parse_answer(std::string_view text) {
    Json parsed = Json::parse(mend_answer(text), nullptr, false);
    return parsed.is_object() ? std::optional(std::move(parsed)) : std::nullopt;
}

std::optional<std::string> answer_text(const PacketView &packet, std::string_view cmd) {
    const std::string beginning = R"({"cmd":")" + std::string(cmd) + "\"";
    const std::string_view text = payload_text(packet);
    return packet.type == relay_type_data && text.starts_with(beginning)
               ? std::optional<std::string>(text)
               : std::nullopt;
}

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

std::string value_text(const Json &value) {
    if (value.is_string()) {
        return value.get<std::string>();
    }
    if (!value.is_array()) {
        return value.dump();
    }
    std::string list;
    for (const Json &element : value) {
        list += (list.empty() ? "" : ", ") + value_text(element);
    }
    return list.empty() ? "(none)" : list;
}

void print_json(const Json &value) {
    printf("%s\n", value.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
}
