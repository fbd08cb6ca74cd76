#include "client/scan.h"
#include "beaconctl/board.h"
#include "beaconctl/commands.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/fail.h"
#include "beaconctl/screen.h"
#include "beaconctl/section.h"
#include "beaconctl/text_table.h"
#include "client/wait.h"

#include <nlohmann/json.hpp>

constexpr double scan_timeout = 20.0; // a scan takes some seconds

// "cam" and "lan" stand for the interface in a setting. If it is empty, the daemon does not answer.
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
    ScanAnswer answer;
    const Outcome outcome = ask(link, scan_request(interface, link.wait.timeout, answer));
    if (outcome != Outcome::answered) {
        return report_silence(link, outcome);
    }
    names = answer.names;
    return answer.is_readable ? exit_ok : fail("the board's answer cannot be read");
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
    link.wait.timeout = target.timeout.value_or(scan_timeout);
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
