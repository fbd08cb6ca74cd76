#include "net/wlan_scan.h"

#include "base/shell.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

constexpr size_t command_size = 100;
constexpr size_t line_limit = 1023; // a longer line is handled in pieces
constexpr size_t output_limit = 4 << 20;
constexpr size_t list_limit = 60000;
constexpr const char *name_mark = "ESSID:";

// The name in a line of iwlist: the text after the mark, without its first character (a quote) and
// its last two (a quote and the line end).
static std::string network_name(const char *line) {
    const std::string name = strstr(line, name_mark) + strlen(name_mark);
    return name.size() > 3 ? name.substr(1, name.size() - 3) : "";
}

// The names from all lines that have one, separated by commas.
static std::string network_names(const std::string &output) {
    std::string names;
    bool is_first = true;
    for (size_t at = 0; names.size() < list_limit && at < output.size();) {
        const size_t rest = output.find('\n', at) - at; // npos is beyond any end
        const std::string line = output.substr(at, std::min(rest, line_limit - 1) + 1);
        if (strstr(line.c_str(), name_mark) != nullptr) {
            names += (is_first ? "" : ",") + network_name(line.c_str());
            is_first = false;
        }
        at += line.size();
    }
    return names;
}

std::string wlan_scan(const char *interface) {
    char command[command_size];
    snprintf(command, sizeof command, "ifconfig %s up > /dev/null 2>&1", interface);
    run_shell(command);
    snprintf(command, sizeof command, "iwlist %s scan 2>/dev/null", interface);
    return network_names(shell_output_bytes(command, output_limit));
}
