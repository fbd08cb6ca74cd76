#include "beaconctl/commands.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/screen.h"
#include "client/command_text.h"

#include <cstdio>
#include <unistd.h>

static Outcome ask_sequence(Link &link, double seconds, int tries, uint32_t &sequence) {
    return request(link, std::string(1, ask_info), seconds, tries, [&](const PacketView &packet) {
        sequence = packet.sequence;
        return parse_info(packet).has_value();
    });
}

// Sends the command until the daemon's end is certain: its port is closed, or a new daemon answers,
// which counts its packets from the beginning. Requests are taken in order, so that an answer in
// the old count tells that the command got lost. Silence tells nothing: it is asked again then, and
// the command is not repeated, which could reach the new daemon.
static int send_restart(Link &link, uint32_t before) {
    constexpr double patience = 0.25;
    constexpr int most_commands = 5;
    const std::string command = command_text({{"cmd", "restart"}});
    const TimePoint end = after(link.timeout);
    send_payload(link, command);
    for (int commands = 1; Clock::now() < end;) {
        uint32_t now = 0;
        const Outcome outcome = ask_sequence(link, patience, 1, now);
        if (outcome == Outcome::stopped) {
            return report_silence(link, outcome);
        }
        if (outcome == Outcome::refused || (outcome == Outcome::answered && now <= before)) {
            puts("The daemon has ended; its supervisor starts it again.");
            return exit_ok;
        }
        if (outcome == Outcome::answered) {
            if (++commands > most_commands) {
                return fail("the daemon goes on without a restart");
            }
            send_payload(link, command);
        }
    }
    fail("sent, and it no longer answers");
    return exit_silent;
}

int restart_daemon(const Target &target) {
    Link first;
    uint32_t before = 0;
    if (!open_link(first, target)) {
        return exit_silent;
    }
    if (const Outcome outcome = ask_sequence(first, first.timeout, 5, before);
        outcome != Outcome::answered) {
        return report_silence(first, outcome);
    }
    Link second; // an answer to the first question must not be taken for a later one
    return open_link(second, target) ? send_restart(second, before) : exit_silent;
}

static bool is_confirmed(const std::string &name) {
    printf("Reboot the board %s? [y/N] ", name.c_str());
    fflush(stdout);
    char answer[100] = "";
    const ssize_t length = read(STDIN_FILENO, answer, sizeof answer);
    return length > 0 && (answer[0] == 'y' || answer[0] == 'Y');
}

int reboot_board(const Target &target, bool is_sure) {
    if (!is_sure && !is_terminal(STDIN_FILENO)) {
        fail("reboot asks first, and standard input is no terminal: add --yes");
        return exit_usage;
    }
    Link link;
    BoardInfo info{};
    if (const int code = reach_board(link, target, info); code != exit_ok) {
        return code;
    }
    if (!is_sure && !is_confirmed(link.name)) {
        return fail("not rebooted");
    }
    send_payload(link, command_text({{"cmd", "reboot"}}));
    puts("Sent: the board reboots.");
    return exit_ok;
}
