#include "beaconctl/board.h"

#include "beaconctl/exit_codes.h"
#include "beaconctl/fail.h"
#include "beaconctl/stop.h"

#include <cstdio>

bool open_board(Link &link, const Target &target) {
    const OpenOutcome outcome = open_link(link, target.host, target.port);
    link.wait.timeout = target.timeout.value_or(link.wait.timeout);
    link.wait.is_stopped = stop_requested;
    switch (outcome.result) {
    case Opened::opened:
        return true;
    case Opened::host_unknown:
        fail("cannot find the host " + target.host + ": " + outcome.reason);
        return false;
    case Opened::unreachable:
        break;
    }
    fail("cannot reach " + link.name + ": " + outcome.reason);
    return false;
}

Outcome ask_board(Link &link, BoardInfo &info) {
    constexpr int tries = 5;
    return ask(link, info_request(link.wait.timeout, tries, info));
}

int reach_board(Link &link, const Target &target, BoardInfo &info) {
    return open_board(link, target) ? report_silence(link, ask_board(link, info)) : exit_silent;
}

bool report_full_house(const BoardInfo &info) {
    if (info.client_count < most_clients) {
        return false;
    }
    fail("the daemon already has ten clients, and takes no more");
    return true;
}

int report_silence(const Link &link, Outcome outcome) {
    switch (outcome) {
    case Outcome::answered:
        return exit_ok;
    case Outcome::stopped:
        return fail("interrupted");
    case Outcome::refused:
        fail("nothing listens at " + link.name + ": is the daemon running there?");
        return exit_silent;
    case Outcome::silent:
        break;
    }
    char seconds[40];
    snprintf(seconds, sizeof seconds, "%g s", link.wait.timeout);
    fail("no answer from " + link.name + " within " + seconds);
    return exit_silent;
}
