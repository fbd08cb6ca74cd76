#include "beaconctl/board.h"
#include "beaconctl/commands.h"
#include "beaconctl/consent.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/fail.h"
#include "client/command_text.h"

#include <cstdio>

// Sends the command until the daemon has certainly ended: its port is closed, or a new daemon
// answers, which counts its packets from 0. The daemon takes requests in order, so an answer with a
// number of the old count means that the command was lost. Silence means nothing: then only the
// question is repeated, because a second command could reach the new daemon. Each command has a
// link of its own: an answer to a question from before it must not count.
static int send_restart(Link &link, const Target &target, uint32_t before) {
    constexpr double patience = 0.25;
    constexpr int most_commands = 5;
    const std::string command = command_text({{"cmd", "restart"}});
    const TimePoint end = after(link.wait.timeout);
    send_payload(link, command);
    for (int commands = 1; Clock::now() < end;) {
        BoardInfo now{};
        const Outcome outcome = ask(link, info_request(patience, 1, now));
        if (outcome == Outcome::stopped) {
            return report_silence(link, outcome);
        }
        if (outcome == Outcome::refused ||
            (outcome == Outcome::answered && now.sequence <= before)) {
            puts("The daemon has ended; its supervisor starts it again.");
            return exit_ok;
        }
        if (outcome == Outcome::answered) {
            if (++commands > most_commands) {
                return fail("the daemon keeps running without a restart");
            }
            if (!open_board(link, target)) {
                return exit_silent;
            }
            send_payload(link, command);
        }
    }
    fail("sent, but the daemon no longer answers");
    return exit_silent;
}

int restart_daemon(const Target &target) {
    Link first;
    BoardInfo before{};
    if (!open_board(first, target)) {
        return exit_silent;
    }
    if (const Outcome outcome = ask_board(first, before); outcome != Outcome::answered) {
        return report_silence(first, outcome);
    }
    Link second; // a late answer to the first question must not count for a later one
    return open_board(second, target) ? send_restart(second, target, before.sequence) : exit_silent;
}

int reboot_board(const Target &target, bool is_sure) {
    if (!is_sure && !can_ask()) {
        return refuse_to_ask("reboot");
    }
    Link link;
    BoardInfo info{};
    if (const int code = reach_board(link, target, info); code != exit_ok) {
        return code;
    }
    if (!is_sure && !ask_yes("Reboot the board " + link.name + "?")) {
        return fail("not rebooted");
    }
    send_payload(link, command_text({{"cmd", "reboot"}}));
    puts("Sent: the board reboots.");
    return exit_ok;
}
