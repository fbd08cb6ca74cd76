#include "beaconctl/board.h"
#include "beaconctl/channel_table.h"
#include "beaconctl/commands.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/receivers.h"
#include "beaconctl/screen.h"
#include "beaconctl/stop.h"
#include "client/wait.h"

#include <unistd.h>

constexpr double refresh_interval = 0.15;

static std::vector<std::string> all_lines(const ReceiverAnswers &receivers) {
    std::vector<std::string> lines = receiver_lines(1, receivers[0]);
    const std::vector<std::string> second = receiver_lines(2, receivers[1]);
    lines.insert(lines.end(), second.begin(), second.end());
    return lines;
}

int show_channels(const Target &target, bool is_once, bool as_json) {
    Link link;
    ReceiverAnswers receivers;
    if (!open_board(link, target)) {
        return exit_silent;
    }
    Screen screen;
    while (!stop_requested()) {
        const int code = ask_channels(link, receivers);
        if (code != exit_ok) {
            return stop_requested() ? exit_ok : code;
        }
        if (as_json) {
            print_lines(
                {R"({"rc1":)" + receivers[0].json + R"(,"rc2":)" + receivers[1].json + "}"});
            return exit_ok;
        }
        if (is_once || !is_terminal(STDOUT_FILENO)) {
            print_lines(all_lines(receivers));
            return exit_ok;
        }
        rewrite_screen(screen, all_lines(receivers));
        drop_packets(link, after(refresh_interval));
    }
    return exit_ok;
}
