#include "beaconctl/answers.h"
#include "beaconctl/commands.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/screen.h"

#include <array>
#include <cstdio>
#include <poll.h>
#include <unistd.h>

constexpr double refresh_interval = 0.15;
constexpr int moved_distance = 100; // raw units between a channel's ends, for it to count as moved
enum RcState { rc_absent = 0, rc_present = 1, rc_calibrating = 2 };

// Both receivers' answers: "state", and the list "ch" of channels.
using Receivers = std::array<Json, 2>;

static int ask_channels(Link &link, Receivers &receivers) {
    std::array<bool, 2> has_come{};
    const auto take = [&](const PacketView &packet) {
        for (size_t i = 0; i < receivers.size(); ++i) {
            const auto text = answer_text(packet, i == 0 ? "rc1" : "rc2");
            const auto parsed = text ? parse_answer(*text) : std::nullopt;
            if (parsed && parsed->contains("state") && parsed->contains("ch")) {
                receivers[i] = *parsed;
                receivers[i].erase("cmd");
                has_come[i] = true;
            }
        }
        return has_come[0] && has_come[1];
    };
    const Outcome outcome = request(link, command_text({{"cmd", "rc"}, {"param", "get-channels"}}),
                                    link.timeout, 5, take);
    return outcome == Outcome::answered ? exit_ok : report_silence(link, outcome);
}

static int number_of(const Json &object, const char *name) {
    const auto found = object.find(name);
    return found != object.end() && found->is_number() ? found->get<int>() : 0;
}

static std::string function_text(int function) {
    switch (function) {
    case 0:
        return "-";
    case 1:
        return "menu";
    case 2:
        return "pan";
    case 3:
        return "tilt";
    case 4:
        return "roll";
    case 5:
        return "smoothing off";
    case 9:
        return "record switch";
    case 45:
        return "record toggle";
    default:
        return std::to_string(function);
    }
}

static std::string channel_line(size_t number, const Json &channel) {
    const double value = channel.value("val", Json(0.0)).is_number()
                             ? channel.value("val", Json(0.0)).get<double>()
                             : 0.0;
    char text[160];
    snprintf(text, sizeof text, "  %2zu  %5d  %5d  %6d  %5d  %6.3f  %9d  %4d%%  %-3s  %s", number,
             number_of(channel, "raw"), number_of(channel, "min"), number_of(channel, "c"),
             number_of(channel, "max"), value, number_of(channel, "d"), number_of(channel, "l"),
             number_of(channel, "i") != 0 ? "yes" : "no",
             function_text(number_of(channel, "f")).c_str());
    return text;
}

static std::vector<std::string> receiver_lines(size_t index, const Json &receiver) {
    constexpr std::array states = {"absent", "present", "calibrating"};
    const auto state = static_cast<size_t>(number_of(receiver, "state"));
    std::vector<std::string> lines = {
        "RC" + std::to_string(index + 1) + " " +
        (state < states.size() ? states[state] : "state " + std::to_string(state))};
    if (state == rc_absent) {
        return lines;
    }
    lines.emplace_back(
        "  ch    raw    min  centre    max   value  dead band  limit  inv  function");
    size_t number = 0;
    for (const Json &channel : receiver["ch"]) {
        lines.push_back(channel_line(++number, channel));
    }
    return lines;
}

static std::vector<std::string> all_lines(const Receivers &receivers) {
    std::vector<std::string> lines = receiver_lines(0, receivers[0]);
    const std::vector<std::string> second = receiver_lines(1, receivers[1]);
    lines.insert(lines.end(), second.begin(), second.end());
    return lines;
}

static void pause_between(Link &link) {
    PacketView packet{};
    const TimePoint end = after(refresh_interval);
    while (receive(link, packet, end) == Received::packet) {
    }
}

int show_channels(const Target &target, bool is_once, bool as_json) {
    Link link;
    Receivers receivers;
    if (!open_link(link, target)) {
        return exit_silent;
    }
    Screen screen;
    while (!stop_requested()) {
        const int code = ask_channels(link, receivers);
        if (code != exit_ok) {
            return stop_requested() ? exit_ok : code;
        }
        if (as_json) {
            print_json({{"rc1", receivers[0]}, {"rc2", receivers[1]}});
            return exit_ok;
        }
        if (is_once || !is_terminal(STDOUT_FILENO)) {
            return print_lines(all_lines(receivers)) ? exit_ok : exit_failed;
        }
        rewrite_screen(screen, all_lines(receivers));
        pause_between(link);
    }
    return exit_ok;
}

static std::string rc_command(const char *param, int receiver) {
    return command_text({{"cmd", "rc"}, {"param", param}, {"value", std::to_string(receiver - 1)}});
}

static const Json &chosen(const Receivers &receivers, int receiver) {
    return receivers[static_cast<size_t>(receiver - 1)];
}

// Sends a calibration command until the receiver has the state that it leads to.
static int command_state(Link &link, const char *param, int receiver, int state) {
    Receivers receivers;
    for (int i = 0; i < 3; ++i) {
        send_payload(link, rc_command(param, receiver));
        if (const int code = ask_channels(link, receivers); code != exit_ok) {
            return code;
        }
        if (number_of(chosen(receivers, receiver), "state") == state) {
            return exit_ok;
        }
    }
    return fail("RC" + std::to_string(receiver) +
                " does not follow: is it still switched on and in reach?");
}

// The channels that have two ends by now.
static std::string moved_channels(const Json &receiver) {
    std::string list;
    size_t number = 0;
    for (const Json &channel : receiver["ch"]) {
        ++number;
        if (number_of(channel, "max") - number_of(channel, "min") >= moved_distance) {
            list += (list.empty() ? "" : ", ") + std::to_string(number);
        }
    }
    return list.empty() ? "none" : list;
}

// Reads a line of standard input. False: there is none any more.
static bool read_line() {
    char c = '\0';
    while (read(STDIN_FILENO, &c, 1) == 1) {
        if (c == '\n') {
            return true;
        }
    }
    return false;
}

// Waits for Enter, showing meanwhile which channels have moved. False: the user gives up, or the
// daemon has gone silent.
static bool wait_for_enter(Link &link, int receiver, bool is_showing) {
    Progress progress;
    bool is_ready = false;
    while (!is_ready && !stop_requested()) {
        if (is_showing && progress_due(progress)) {
            Receivers receivers;
            if (ask_channels(link, receivers) != exit_ok) {
                return false;
            }
            show_progress(progress, "  channels moved so far: " +
                                        moved_channels(chosen(receivers, receiver)));
        }
        pollfd input{STDIN_FILENO, POLLIN, 0};
        is_ready = poll(&input, 1, 100) > 0;
    }
    clear_progress(progress);
    return is_ready && read_line();
}

// Ends a calibration that was given up, and gives the channels back what they had.
static int give_up(Link &link, int receiver, const Json &before) {
    Json channels = Json::array();
    int number = 0;
    for (const Json &channel : before["ch"]) {
        channels.push_back({{"ch", ++number},
                            {"min", number_of(channel, "min")},
                            {"c", number_of(channel, "c")},
                            {"max", number_of(channel, "max")}});
    }
    send_payload(link, rc_command("finish-minmax", receiver));
    send_payload(link, command_text({{"cmd", "rc"},
                                     {"param", "set-config"},
                                     {"value", std::to_string(receiver - 1)},
                                     {"value2", channels.dump()}}));
    return fail("calibration given up; the channels have their old values again");
}

static int find_receiver(Link &link, int receiver, Receivers &receivers) {
    if (const int code = ask_channels(link, receivers); code != exit_ok) {
        return code;
    }
    return number_of(chosen(receivers, receiver), "state") != rc_absent
               ? exit_ok
               : fail("RC" + std::to_string(receiver) +
                      " is absent: switch its transmitter on, and set rc_enabled and its mode");
}

static void say(const std::string &text) {
    puts(text.c_str());
    fflush(stdout);
}

int calibrate_receiver(const Target &target, int receiver) {
    Link link;
    Receivers before;
    if (!open_link(link, target)) {
        return exit_silent;
    }
    if (const int code = find_receiver(link, receiver, before); code != exit_ok) {
        return code;
    }
    const std::string name = "RC" + std::to_string(receiver);
    say("Calibrating " + name +
        ". The gimbal moves with the sticks; Ctrl-C gives up.\n\n"
        "Step 1 of 2, the ends. Move every stick, knob and switch of " +
        name + " to both of its\nends, slowly and more than once. Then press Enter.");
    if (const int code = command_state(link, "calibrate-minmax", receiver, rc_calibrating);
        code != exit_ok) {
        return code;
    }
    if (!wait_for_enter(link, receiver, true)) {
        return give_up(link, receiver, chosen(before, receiver));
    }
    if (const int code = command_state(link, "finish-minmax", receiver, rc_present);
        code != exit_ok) {
        return code;
    }
    say("\nStep 2 of 2, the centre. Let go of the sticks and put knobs and switches into\n"
        "their middle. Then press Enter.");
    if (!wait_for_enter(link, receiver, false)) {
        return give_up(link, receiver, chosen(before, receiver));
    }
    if (const int code = command_state(link, "set-center", receiver, rc_present); code != exit_ok) {
        return code;
    }
    say("\nDone and saved:");
    Receivers result;
    if (const int code = ask_channels(link, result); code != exit_ok) {
        return code;
    }
    print_lines(receiver_lines(static_cast<size_t>(receiver - 1), chosen(result, receiver)));
    return exit_ok;
}
