#include "beaconctl/answers.h"
#include "beaconctl/command_check.h"
#include "beaconctl/commands.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/mend.h"
#include "beaconctl/screen.h"
#include "beaconctl/status_record.h"
#include "beaconctl/text_table.h"

#include "net/relay_packet.h"

#include <cstdio>
#include <unistd.h>

constexpr double scan_timeout = 20.0; // a scan takes some seconds
constexpr const char *shot_command = R"(!{"cmd":"shot","param":""})";

// Opens the link and sees that the daemon is there.
static int reach_board(Link &link, const Target &target, BoardInfo &info) {
    if (!open_link(link, target)) {
        return exit_silent;
    }
    const Outcome outcome = ask_board(link, info);
    return outcome == Outcome::answered ? exit_ok : report_silence(link, outcome);
}

// The names of a scan's answer; they come between commas.
static Json scanned_names(const std::string &list) {
    Json names = Json::array();
    for (size_t at = 0; !list.empty() && at <= list.size();) {
        const size_t end = std::min(list.find(',', at), list.size());
        names.push_back(mend_utf8(decode_hex_escapes(list.substr(at, end - at))));
        at = end + 1;
    }
    return names;
}

// "cam" and "lan" mean what is set for them: without that the daemon does not answer.
static int check_interface(Link &link, const std::string &interface) {
    if (interface != "cam" && interface != "lan") {
        return exit_ok;
    }
    Json wifi;
    if (const int code = ask_section(link, "wifi", wifi); code != exit_ok) {
        return code;
    }
    const char *member = interface == "cam" ? "camera_iface" : "wifi_iface";
    const std::string value = value_text(wifi.value(member, Json("")));
    return value == "int" || value == "ext"
               ? exit_ok
               : fail(std::string(member) + " is not set on the board: scan int or ext");
}

int scan_networks(const Target &target, const std::string &interface, bool as_json) {
    Link link;
    BoardInfo info{};
    if (const int code = reach_board(link, target, info); code != exit_ok) {
        return code;
    }
    if (const int code = check_interface(link, interface); code != exit_ok) {
        return code;
    }
    link.timeout = target.timeout.value_or(scan_timeout);
    std::optional<Json> answer;
    const auto take = [&](const PacketView &packet) {
        const auto text = answer_text(packet, "wlanscan");
        answer = text ? parse_answer(*text) : std::nullopt;
        return text.has_value();
    };
    const Outcome outcome =
        request(link, command_text({{"cmd", "wlan"}, {"param", "scan"}, {"value", interface}}),
                link.timeout, 1, take);
    if (outcome != Outcome::answered) {
        return report_silence(link, outcome);
    }
    if (!answer || !answer->contains("value")) {
        return fail("the board's answer cannot be read");
    }
    const Json names = scanned_names(value_text((*answer)["value"]));
    if (as_json) {
        print_json({{"interface", interface}, {"networks", names}});
        return exit_ok;
    }
    if (names.empty()) {
        puts("no network found");
    }
    for (const Json &name : names) {
        const std::string text = value_text(name);
        puts(text.empty() ? "(hidden)" : printable(text, false).c_str());
    }
    return exit_ok;
}

int turn_gimbal(const Target &target, double pan, double tilt, double roll) {
    Link link;
    BoardInfo info{};
    if (const int code = reach_board(link, target, info); code != exit_ok) {
        return code;
    }
    send_payload(link, gimbal_payload(pan, tilt, roll));
    printf("Sent: pan %g, tilt %g, roll %g.%s\n", pan, tilt, roll,
           pan == 0 && tilt == 0 && roll == 0 ? "" : " It holds until 0 0 0 is sent.");
    return exit_ok;
}

int take_shot(const Target &target) {
    Link link;
    BoardInfo info{};
    if (const int code = reach_board(link, target, info); code != exit_ok) {
        return code;
    }
    keep_registered(link, Registration::data_only);
    PacketView packet{};
    const TimePoint deadline = after(link.timeout);
    std::optional<StatusRecord> status;
    while (!status && receive(link, packet, deadline) == Received::packet) {
        status = is_status(packet) ? parse_status(packet.payload) : std::nullopt;
    }
    if (status && !status->data_source) {
        return fail("the board has no camera program that could take a photo");
    }
    send_payload(link, shot_command);
    puts("Sent to the camera; it does not say whether it has taken a photo.");
    return exit_ok;
}

static void print_packet(const PacketView &packet) {
    const std::string_view text = payload_text(packet);
    if (packet.type == relay_type_data && text.starts_with('{')) {
        const bool is_shown = is_terminal(STDOUT_FILENO);
        puts(is_shown ? printable(text, true).c_str() : std::string(text).c_str());
    } else {
        printf("(%zu bytes of type %d)\n", text.size(), packet.type);
    }
    fflush(stdout);
}

int send_raw(const Target &target, const std::string &command, double seconds) {
    const CheckedCommand checked = check_command(command);
    if (checked.text.empty()) {
        fail("not sent, for the daemon would end on it: " + checked.reason);
        return exit_usage;
    }
    Link link;
    BoardInfo info{};
    if (const int code = reach_board(link, target, info); code != exit_ok) {
        return code;
    }
    send_payload(link, checked.text);
    int count = 0;
    PacketView packet{};
    const TimePoint end = after(seconds);
    while (receive(link, packet, end) == Received::packet) {
        if (!parse_info(packet)) { // a late answer to the question whether the daemon is there
            print_packet(packet);
            ++count;
        }
    }
    if (count == 0) {
        fprintf(stderr, "Sent; nothing came back within %g s.\n", seconds);
    }
    return exit_ok;
}

static Outcome ask_sequence(Link &link, double seconds, int tries, uint32_t &sequence) {
    return request(link, std::string(1, ask_info), seconds, tries, [&](const PacketView &packet) {
        sequence = packet.sequence;
        return parse_info(packet).has_value();
    });
}

int restart_daemon(const Target &target) {
    constexpr double patience = 0.5;
    constexpr int tries = 4;
    Link link;
    uint32_t before = 0;
    if (!open_link(link, target)) {
        return exit_silent;
    }
    if (const Outcome outcome = ask_sequence(link, link.timeout, 5, before);
        outcome != Outcome::answered) {
        return report_silence(link, outcome);
    }
    for (int i = 0; i < tries && !stop_requested(); ++i) {
        send_payload(link, command_text({{"cmd", "restart"}}));
        uint32_t now = 0;
        // Requests are taken in order: an answer in the old count of packets means that the
        // command got lost. Its supervisor may have started the daemon again already.
        if (ask_sequence(link, patience, 1, now) != Outcome::answered || now < before) {
            puts("The daemon has ended; its supervisor starts it again.");
            return exit_ok;
        }
    }
    return fail("the daemon goes on without a restart");
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
