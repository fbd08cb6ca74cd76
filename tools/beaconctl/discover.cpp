#include "beaconctl/board.h"
#include "beaconctl/commands.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/fail.h"
#include "beaconctl/screen.h"
#include "beaconctl/stop.h"
#include "beaconctl/text_table.h"
#include "client/answers.h"
#include "client/discovery.h"
#include "client/status_words.h"

#include <cerrno>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <unistd.h>

constexpr double discovery_time = 1.5; // seconds
constexpr double asking_interval = 0.5;

using FoundBoards = std::map<std::string, BoardInfo>; // by address

static FoundBoards find_boards(int socket, uint16_t port, double seconds) {
    FoundBoards boards;
    const TimePoint end = after(seconds);
    for (TimePoint ask_due{}; Clock::now() < end && !stop_requested();) {
        if (Clock::now() >= ask_due) {
            ask_everybody(socket, port);
            ask_due = after(asking_interval);
        }
        pollfd watched{socket, POLLIN, 0};
        poll(&watched, 1, 50);
        while (const auto found = next_found(socket)) {
            boards[found->address] = found->info;
        }
    }
    return boards;
}

static void print_boards(const FoundBoards &boards, bool as_json) {
    Json list = Json::array();
    std::vector<std::pair<std::string, std::string>> rows;
    for (const auto &[address, info] : boards) {
        list.push_back({{"address", address},
                        {"name", info.name},
                        {"app_type", info.app_type},
                        {"clients", info.client_count}});
        rows.emplace_back(address, "\"" + printable(info.name, false) + "\", " +
                                       app_type_text(info.app_type) +
                                       ", clients: " + std::to_string(info.client_count));
    }
    if (as_json) {
        print_lines({json_text(list)});
    } else {
        print_table(rows);
    }
}

int discover_boards(const Target &target, bool as_json) {
    const int socket = open_discovery();
    if (socket < 0) {
        return fail(std::string("cannot ask: ") + strerror(errno));
    }
    const FoundBoards boards =
        find_boards(socket, target.port, target.timeout.value_or(discovery_time));
    close(socket);
    if (boards.empty()) {
        fail("no board answers in the networks of this machine");
        return exit_silent;
    }
    print_boards(boards, as_json);
    return exit_ok;
}
