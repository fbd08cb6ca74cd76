#include "net/wlan_scan.h"

#include "base/shell.h"

#include <cstdio>
#include <cstring>

constexpr size_t command_size = 100;
constexpr size_t line_size = 1024;
constexpr size_t list_limit = 60000;
constexpr const char *name_mark = "ESSID:";

// The name in a line of iwlist: what follows the mark, without its first character (a quote) and
// its last two (a quote and the line end).
static std::string network_name(const char *line) {
    const std::string name = strstr(line, name_mark) + strlen(name_mark);
    return name.size() > 3 ? name.substr(1, name.size() - 3) : "";
}

std::string wlan_scan(const char *interface) {
    char command[command_size];
    snprintf(command, sizeof command, "ifconfig %s up > /dev/null 2>&1", interface);
    run_shell(command);
    std::string names;
    snprintf(command, sizeof command, "iwlist %s scan 2>/dev/null", interface);
    FILE *pipe = popen(command, "re"); // NOLINT(cert-env33-c): by design
    if (pipe == nullptr) {
        return names;
    }
    char line[line_size];
    bool is_first = true;
    while (names.size() < list_limit && fgets(line, sizeof line, pipe) != nullptr) {
        if (strstr(line, name_mark) != nullptr) {
            names += (is_first ? "" : ",") + network_name(line);
            is_first = false;
        }
    }
    pclose(pipe);
    return names;
}
