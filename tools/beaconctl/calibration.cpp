#include "beaconctl/commands.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/receivers.h"
#include "beaconctl/screen.h"
#include "client/command_text.h"

#include <poll.h>
#include <unistd.h>

constexpr int command_tries = 3;

struct Calibration {
    Link link;
    int receiver = 1; // or 2
    ReceiverAnswer before;
};

static std::string name_of(const Calibration &calibration) {
    return "RC" + std::to_string(calibration.receiver);
}

static std::string rc_command(const Calibration &calibration, const char *param) {
    return command_text(
        {{"cmd", "rc"}, {"param", param}, {"value", std::to_string(calibration.receiver - 1)}});
}

static int ask_receiver(Calibration &calibration, ReceiverAnswer &receiver) {
    ReceiverAnswers receivers;
    const int code = ask_channels(calibration.link, receivers);
    receiver = receivers[static_cast<size_t>(calibration.receiver - 1)];
    return code;
}

// Sends a calibration command until the receiver's answer tells that it was taken.
template <typename Taken>
static int command_receiver(Calibration &calibration, const char *param, const Taken &is_taken) {
    for (int i = 0; i < command_tries; ++i) {
        send_payload(calibration.link, rc_command(calibration, param));
        ReceiverAnswer receiver;
        if (const int code = ask_receiver(calibration, receiver); code != exit_ok) {
            return code;
        }
        if (is_taken(receiver)) {
            return exit_ok;
        }
    }
    return fail(name_of(calibration) + " does not follow: is it still switched on and in reach?");
}

static int command_state(Calibration &calibration, const char *param, int state) {
    return command_receiver(calibration, param,
                            [=](const ReceiverAnswer &now) { return now.state == state; });
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

// Waits for Enter, showing meanwhile which channels have moved. exit_failed: the user gives up.
static int wait_for_enter(Calibration &calibration, bool is_showing) {
    Progress progress;
    int code = exit_ok;
    bool is_ready = false;
    while (code == exit_ok && !is_ready && !stop_requested()) {
        if (is_showing && progress_due(progress)) {
            ReceiverAnswer receiver;
            code = ask_receiver(calibration, receiver);
            show_progress(progress, "  channels moved so far: " + moved_channels(receiver));
        }
        pollfd input{STDIN_FILENO, POLLIN, 0};
        is_ready = code == exit_ok && poll(&input, 1, 100) > 0;
    }
    clear_progress(progress);
    if (code != exit_ok) {
        return code;
    }
    return is_ready && read_line() ? exit_ok : exit_failed;
}

// Ends the calibration and gives the channels back what they had, until the receiver's answer tells
// that it has come to that.
static bool restore(Calibration &calibration, const Target &target) {
    Link link; // of its own: what is still on its way to the other tells of earlier
    if (!open_link(link, target)) {
        return false;
    }
    const std::string values = channel_list(calibration.before);
    const double patience = link.timeout / command_tries;
    const auto index = static_cast<size_t>(calibration.receiver - 1);
    ReceiverAnswers now;
    const bool is_known = request_channels(link, patience, now) == Outcome::answered;
    int state = is_known ? now[index].state : rc_calibrating; // which it may be
    for (int i = 0; i < command_tries && !stop_requested(); ++i) {
        const TimePoint next = after(patience);
        if (state == rc_calibrating) {
            send_payload(link, rc_command(calibration, "finish-minmax"));
        }
        send_payload(link, command_text({{"cmd", "rc"},
                                         {"param", "set-config"},
                                         {"value", std::to_string(calibration.receiver - 1)},
                                         {"value2", values}}));
        const Outcome outcome = request_channels(link, patience, now);
        if (outcome == Outcome::answered) {
            state = now[index].state;
            if (state != rc_calibrating && is_calibrated_alike(calibration.before, now[index])) {
                return true;
            }
        } else if (outcome == Outcome::refused) {
            pass_over_packets(link, next); // its supervisor may start the daemon again meanwhile
        }
    }
    return false;
}

// Returns `code`, why the calibration was given up, or exit_silent when that does not succeed.
static int give_up(Calibration &calibration, const Target &target, int code) {
    forget_stop(); // the next Ctrl-C ends this, too
    if (restore(calibration, target)) {
        fail("calibration given up; the channels have their old values again");
        return code;
    }
    fail("calibration given up, but the old values could not be restored: " + name_of(calibration) +
         " may still be calibrating");
    return exit_silent;
}

static int find_receiver(Calibration &calibration) {
    if (const int code = ask_receiver(calibration, calibration.before); code != exit_ok) {
        return code;
    }
    return calibration.before.state != rc_absent
               ? exit_ok
               : fail(name_of(calibration) +
                      " is absent: switch its transmitter on, and set rc_enabled and its mode");
}

static int calibrate_ends(Calibration &calibration) {
    const std::string name = name_of(calibration);
    print_lines(
        {"Calibrating " + name + ". The gimbal moves with the sticks; Ctrl-C gives up.", "",
         "Step 1 of 2, the ends. Move every stick, knob and switch of " + name + " to both of its",
         "ends, slowly and more than once. Then press Enter."});
    int code = command_state(calibration, "calibrate-minmax", rc_calibrating);
    if (code == exit_ok) {
        code = wait_for_enter(calibration, true);
    }
    return code == exit_ok ? command_state(calibration, "finish-minmax", rc_present) : code;
}

static int calibrate_centres(Calibration &calibration) {
    print_lines({"",
                 "Step 2 of 2, the centre. Let go of the sticks and put knobs and switches into",
                 "their middle. Then press Enter."});
    ReceiverAnswer earlier;
    int code = wait_for_enter(calibration, false);
    if (code == exit_ok) {
        code = ask_receiver(calibration, earlier);
    }
    return code == exit_ok ? command_receiver(calibration, "set-center",
                                              [&](const ReceiverAnswer &now) {
                                                  return now.state == rc_present &&
                                                         has_new_centres(earlier, now);
                                              })
                           : code;
}

int calibrate_receiver(const Target &target, int receiver) {
    Calibration calibration;
    calibration.receiver = receiver;
    if (!open_link(calibration.link, target)) {
        return exit_silent;
    }
    if (const int code = find_receiver(calibration); code != exit_ok) {
        return code;
    }
    int code = calibrate_ends(calibration);
    if (code == exit_ok) {
        code = calibrate_centres(calibration);
    }
    if (code != exit_ok) {
        return give_up(calibration, target, code);
    }
    print_lines({"", "Done and saved:"});
    ReceiverAnswer result;
    if (code = ask_receiver(calibration, result); code == exit_ok) {
        print_lines(receiver_lines(receiver, result));
    }
    return code;
}
