#include "beaconctl/board.h"
#include "beaconctl/commands.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/fail.h"
#include "beaconctl/screen.h"
#include "beaconctl/text_table.h"
#include "client/command_check.h"
#include "client/packet.h"
#include "client/wait.h"

#include "net/relay_packet.h"

#include <cstdio>
#include <unistd.h>

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
    register_for(link.registration, Streams::data_only, Clock::now());
    StatusRecord status{};
    if (next_status(link, status, after(link.wait.timeout)) == Received::packet &&
        !status.data_source) {
        return fail("the board has no camera program that could take a photo");
    }
    send_payload(link, shot_payload());
    puts("Sent to the camera; it does not say whether it has taken a photo.");
    return exit_ok;
}

static const char *harm_text(Harm harm) {
    switch (harm) {
    case Harm::ends_daemon:
        return ", because the daemon would end on it";
    case Harm::ignored:
        return ", because the daemon would ignore it";
    default:
        return "";
    }
}

static void print_packet(const PacketView &packet) {
    const std::string_view text = payload_text(packet);
    if (packet.type == relay_type_data && text.starts_with('{')) {
        print_lines({is_terminal(STDOUT_FILENO) ? printable(text, true) : std::string(text)});
    } else {
        print_lines({"(" + std::to_string(text.size()) + " bytes of type " +
                     std::to_string(packet.type) + ")"});
    }
}

int send_raw(const Target &target, const std::string &command, double seconds) {
    const CheckedCommand checked = check_command(command);
    if (checked.text.empty()) {
        fail(std::string("not sent") + harm_text(checked.harm) + ": " + checked.reason);
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
        if (!parse_info(packet)) { // a late answer to the check that the daemon is there
            print_packet(packet);
            ++count;
        }
    }
    if (count == 0) {
        fprintf(stderr, "Sent; nothing came back within %g s. What the daemon does: %s.\n", seconds,
                checked.effect.c_str());
    }
    return exit_ok;
}
