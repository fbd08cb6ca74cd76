#include "beaconctl/commands.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/screen.h"
#include "beaconctl/text_table.h"
#include "client/command_text.h"
#include "client/mend.h"
#include "client/section.h"

#include <nlohmann/json.hpp>

constexpr double scan_timeout = 20.0; // a scan takes some seconds

// The names of a scan's answer; they come between commas.
static std::vector<std::string> scanned_names(const std::string &list) {
    std::vector<std::string> names;
    for (size_t at = 0; !list.empty() && at <= list.size();) {
        const size_t end = std::min(list.find(',', at), list.size());
        names.push_back(mend_utf8(decode_hex_escapes(list.substr(at, end - at))));
        at = end + 1;
    }
    return names;
}

// "cam" and "lan" mean what is set for them: without that the daemon does not answer.
static int check_interface(Link &link, const std::string &interface) {
    if (interface != "cam" && interface != "lan") {
        return exit_ok;
    }
    Json wifi;
    if (const int code = ask_section(link, "wifi", wifi); code != exit_ok) {
        return code;
    }
    const char *member = interface == "cam" ? "camera_iface" : "wifi_iface";
    const std::string value = value_text(wifi.value(member, Json("")));
    return value == "int" || value == "ext"
               ? exit_ok
               : fail(std::string(member) + " is not set on the board: scan int or ext");
}

static int ask_scan(Link &link, const std::string &interface, std::vector<std::string> &names) {
    std::optional<Json> answer;
    const auto take = [&](const PacketView &packet) {
        const auto text = answer_text(packet, "wlanscan");
        answer = text ? parse_answer(*text) : std::nullopt;
        return text.has_value();
    };
    const Outcome outcome =
        request(link, command_text({{"cmd", "wlan"}, {"param", "scan"}, {"value", interface}}),
                link.timeout, 1, take);
    if (outcome != Outcome::answered) {
        return report_silence(link, outcome);
    }
    if (!answer || !answer->contains("value")) {
        return fail("the board's answer cannot be read");
    }
    names = scanned_names(value_text((*answer)["value"]));
    return exit_ok;
}

static void print_names(const std::vector<std::string> &names) {
    std::vector<std::string> lines;
    lines.reserve(names.size());
    for (const std::string &name : names) {
        lines.push_back(name.empty() ? "(hidden)" : printable(name, false));
    }
    print_lines(lines.empty() ? std::vector<std::string>{"no network found"} : lines);
}

int scan_networks(const Target &target, const std::string &interface, bool as_json) {
    Link link;
    BoardInfo info{};
    if (const int code = reach_board(link, target, info); code != exit_ok) {
        return code;
    }
    if (const int code = check_interface(link, interface); code != exit_ok) {
        return code;
    }
    link.timeout = target.timeout.value_or(scan_timeout);
    std::vector<std::string> names;
    if (const int code = ask_scan(link, interface, names); code != exit_ok) {
        return code;
    }
    if (as_json) {
        print_lines({json_text({{"interface", interface}, {"networks", names}})});
    } else {
        print_names(names);
    }
    return exit_ok;
}
