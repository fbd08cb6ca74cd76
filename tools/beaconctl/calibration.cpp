#include "beaconctl/board.h"
#include "beaconctl/channel_table.h"
#include "beaconctl/commands.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/fail.h"
#include "beaconctl/receivers.h"
#include "beaconctl/screen.h"
#include "beaconctl/stop.h"
#include "client/wait.h"

#include <algorithm>
#include <poll.h>
#include <unistd.h>

constexpr int command_tries = 3;
constexpr double look_interval = 0.02; // seconds between two questions

struct Calibration {
    Link link;
    int receiver = 1; // 1 or 2
    ReceiverAnswer before;
    bool was_under_way = false; // someone has left it so: what was before that is lost
};

static std::string name_of(const Calibration &calibration) {
    return "RC" + std::to_string(calibration.receiver);
}

static int ask_receiver(Calibration &calibration, ReceiverAnswer &receiver) {
    ReceiverAnswers receivers;
    const int code = ask_channels(calibration.link, receivers);
    receiver = receivers[static_cast<size_t>(calibration.receiver - 1)];
    return code;
}

static int report_unheard(const Calibration &calibration) {
    return fail(name_of(calibration) + " does not respond: is it still switched on and in range?");
}

// Asks for the receiver, which should have this state.
static int ask_heard(Calibration &calibration, int state, ReceiverAnswer &receiver) {
    const int code = ask_receiver(calibration, receiver);
    return code != exit_ok || is_heard(receiver, state) ? code : report_unheard(calibration);
}

// How long a command gets to take effect before it is sent again.
static double patience_of(const Link &link) {
    return link.wait.timeout / command_tries;
}

// Asks for the receivers again and again until is_taken(receiver) or the deadline. An answer may
// be a late one to an earlier question, from before the command took effect.
template <typename Taken>
static Outcome look_until(Link &link, TimePoint deadline, int receiver, ReceiverAnswer &now,
                          const Taken &is_taken) {
    Outcome outcome = Outcome::silent;
    do {
        const std::chrono::duration<double> left = deadline - Clock::now();
        ReceiverAnswers receivers;
        const Outcome latest = ask(link, channels_request(left.count(), receivers));
        if (latest == Outcome::silent && outcome == Outcome::answered) {
            break; // too little time was left for another answer
        }
        outcome = latest;
        if (outcome != Outcome::answered) {
            break;
        }
        now = receivers[static_cast<size_t>(receiver - 1)];
        if (is_taken(now)) {
            break;
        }
        drop_packets(link, std::min(deadline, after(look_interval)));
    } while (Clock::now() < deadline);
    return outcome;
}

// Sends a calibration command until the receiver's answer shows that it was carried out.
template <typename Taken>
static int command_receiver(Calibration &calibration, CalibrationStep step, const Taken &is_taken) {
    Link &link = calibration.link;
    Outcome outcome = Outcome::silent;
    for (int i = 0; i < command_tries; ++i) {
        send_payload(link, calibration_command(step, calibration.receiver));
        ReceiverAnswer now;
        outcome = look_until(link, after(patience_of(link)), calibration.receiver, now, is_taken);
        if (outcome == Outcome::answered && is_taken(now)) {
            return exit_ok;
        }
        if (outcome == Outcome::refused || outcome == Outcome::stopped) {
            break;
        }
    }
    if (outcome != Outcome::answered) {
        return report_silence(link, outcome);
    }
    return report_unheard(calibration);
}

static int command_state(Calibration &calibration, CalibrationStep step, int state) {
    return command_receiver(calibration, step,
                            [=](const ReceiverAnswer &now) { return now.state == state; });
}

// Reads a line from standard input. False: it has ended.
static bool read_line() {
    char c = '\0';
    while (read(STDIN_FILENO, &c, 1) == 1) {
        if (c == '\n') {
            return true;
        }
    }
    return false;
}

// Waits for Enter and shows which channels have moved so far. exit_failed: the user gives up.
static int wait_for_enter(Calibration &calibration, bool is_showing) {
    Progress progress;
    int code = exit_ok;
    bool is_lost = false;
    bool is_ready = false;
    while (code == exit_ok && !is_lost && !is_ready && !stop_requested()) {
        if (is_showing && progress_due(progress)) {
            ReceiverAnswer receiver;
            code = ask_receiver(calibration, receiver);
            is_lost = code == exit_ok && !is_heard(receiver, rc_calibrating);
            show_progress(progress,
                          "  channels moved so far: " + number_list(moved_channels(receiver)));
        }
        pollfd input{STDIN_FILENO, POLLIN, 0};
        is_ready = code == exit_ok && poll(&input, 1, 100) > 0;
    }
    clear_progress(progress);
    if (is_lost) {
        return report_unheard(calibration);
    }
    if (code != exit_ok) {
        return code;
    }
    return is_ready && read_line() ? exit_ok : exit_failed;
}

// Ends the calibration and restores the channels' old values. Repeats that until the receiver's
// answer shows it.
static bool restore(Calibration &calibration, const Target &target) {
    Link link; // a new one: answers still on their way to the old one are out of date
    if (!open_board(link, target)) {
        return false;
    }
    const auto is_restored = [&](const ReceiverAnswer &now) {
        return now.state != rc_calibrating && is_calibrated_alike(calibration.before, now);
    };
    ReceiverAnswer now;
    now.state = rc_calibrating; // to be safe, where it cannot be learnt
    look_until(link, after(patience_of(link)), calibration.receiver, now,
               [](const ReceiverAnswer &) { return true; });
    for (int i = 0; i < command_tries && !stop_requested(); ++i) {
        const TimePoint next = after(patience_of(link));
        if (now.state == rc_calibrating) {
            send_payload(link,
                         calibration_command(CalibrationStep::finish_ends, calibration.receiver));
        }
        send_payload(link, restore_command(calibration.receiver, calibration.before));
        const Outcome outcome = look_until(link, next, calibration.receiver, now, is_restored);
        if (outcome == Outcome::answered && is_restored(now)) {
            return true;
        }
        if (outcome == Outcome::refused) {
            drop_packets(link, next); // the supervisor may be starting the daemon again
        }
    }
    return false;
}

// Returns `code`, the reason for giving up, or exit_silent if the old values cannot be restored.
static int give_up(Calibration &calibration, const Target &target, int code) {
    forget_stop(); // another Ctrl-C ends the restoring, too
    const bool is_restored = restore(calibration, target);
    if (is_restored && calibration.was_under_way) {
        fail("calibration given up; the old values of " + name_of(calibration) +
             " were lost before: calibrate it again");
        return code;
    }
    if (is_restored) {
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
    int code = command_state(calibration, CalibrationStep::begin_ends, rc_calibrating);
    if (code == exit_ok) {
        code = wait_for_enter(calibration, true);
    }
    if (code == exit_ok) {
        ReceiverAnswer now;
        code = ask_heard(calibration, rc_calibrating, now);
    }
    return code == exit_ok ? command_state(calibration, CalibrationStep::finish_ends, rc_present)
                           : code;
}

static int calibrate_centres(Calibration &calibration) {
    print_lines({"",
                 "Step 2 of 2, the centre. Let go of the sticks and put knobs and switches into",
                 "their middle. Then press Enter."});
    ReceiverAnswer earlier;
    int code = wait_for_enter(calibration, false);
    if (code == exit_ok) {
        code = ask_heard(calibration, rc_present, earlier);
    }
    return code == exit_ok ? command_receiver(calibration, CalibrationStep::take_centres,
                                              [&](const ReceiverAnswer &now) {
                                                  return is_heard(now, rc_present) &&
                                                         has_new_centres(earlier, now);
                                              })
                           : code;
}

int calibrate_receiver(const Target &target, int receiver) {
    Calibration calibration;
    calibration.receiver = receiver;
    if (!open_board(calibration.link, target)) {
        return exit_silent;
    }
    if (const int code = find_receiver(calibration); code != exit_ok) {
        return code;
    }
    calibration.was_under_way = calibration.before.state == rc_calibrating;
    if (calibration.was_under_way) {
        print_lines({name_of(calibration) + " was left in the middle of a calibration, or someone "
                                            "else is calibrating it.",
                     "This one begins anew.", ""});
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
