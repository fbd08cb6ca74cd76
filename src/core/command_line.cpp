#include "core/command_line.h"

#include "base/version.h"

#include <cstdio>
#include <cstring>

constexpr const char *help_text =
    R"(Usage: quillorbeacon [--help | --version]

Runs the relay and control daemon of a camera board, in the foreground, with
messages on standard error. It takes no arguments: --help and --version count
only when alone, and anything else is ignored.

Start it on a board only. It deletes the default route, sets up eth0 anew and
mounts storage on /mnt and /media. Saving settings remounts /boot. Clients may
change every setting and reboot the machine.

Settings   /boot/quillorbeacon.conf, and the copy that is read at start-up,
           /run/quillorbeacon/config.conf
Documents  quillorbeacon(8), and docs/operating.md in the sources or in
           /usr/share/doc/quillorbeacon
)";

static std::string version_text() {
    const auto &[major_number, minor_number, patch] = program_version;
    return "quillorbeacon " + std::to_string(major_number) + "." + std::to_string(minor_number) +
           "." + std::to_string(patch) + "\n";
}

std::string requested_text(int count, const char *const *words) {
    if (count != 2) {
        return "";
    }
    if (strcmp(words[1], "--help") == 0) {
        return help_text;
    }
    return strcmp(words[1], "--version") == 0 ? version_text() : "";
}

bool print_text(const std::string &text) {
    return fputs(text.c_str(), stdout) >= 0 && fflush(stdout) == 0;
}
