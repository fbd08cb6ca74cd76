#include "beaconctl/consent.h"

#include "beaconctl/exit_codes.h"
#include "beaconctl/fail.h"
#include "beaconctl/screen.h"
#include "beaconctl/stop.h"
#include "client/clock.h"

#include <optional>
#include <poll.h>
#include <unistd.h>

// Nothing at the end of the input.
static std::optional<bool> read_answer() {
    char answer[100] = "";
    const ssize_t length = read(STDIN_FILENO, answer, sizeof answer);
    return length > 0 ? std::optional(answer[0] == 'y' || answer[0] == 'Y') : std::nullopt;
}

bool ask_yes(const std::string &question) {
    print_text(question + " [y/N] ");
    return read_answer().value_or(false);
}

bool ask_yes_within(const std::string &question, double seconds) {
    print_text(question);
    const TimePoint end = after(seconds);
    pollfd input{STDIN_FILENO, POLLIN, 0};
    while (Clock::now() < end && !stop_requested()) {
        if (poll(&input, 1, 100) <= 0) {
            continue;
        }
        if (const auto answer = read_answer()) {
            return *answer;
        }
        input.fd = -1; // it has ended; whoever ran this without input gets the whole time
    }
    print_text("\n");
    return false;
}

bool can_ask() {
    return is_terminal(STDIN_FILENO);
}

int refuse_to_ask(const std::string &what) {
    fail(what + " asks first, and standard input is no terminal: add --yes");
    return exit_usage;
}
