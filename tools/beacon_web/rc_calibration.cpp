#include "beacon_web/rc_calibration.h"

#include "beacon_web/http_reply.h"

#include <memory>

constexpr double answer_seconds = 6.0;
constexpr double take_seconds = 0.2; // between two looks whether the step was taken
constexpr int most_looks = 8;        // the command is sent before each

namespace {

struct Calibration {
    CalibrationStep step = CalibrationStep::begin_ends;
    int receiver = 1; // 1 or 2
    ReceiverAnswers answers;
    ReceiverAnswer before;
    int looks = 0; // at the receiver since the command was first sent
};

} // namespace

// Empty: the step can be taken.
static std::string refusal(CalibrationStep step, const ReceiverAnswer &receiver) {
    if (receiver.state == rc_absent) {
        return " is absent: switch its transmitter on, and set rc_enabled and its mode";
    }
    if (!is_heard(receiver, receiver.state)) {
        return " does not respond: is it still switched on and in range?";
    }
    if (step == CalibrationStep::finish_ends && receiver.state != rc_calibrating) {
        return " is not being calibrated: begin again";
    }
    if (step == CalibrationStep::take_centres && receiver.state != rc_present) {
        return " still takes the ends: finish them before the centres are taken";
    }
    return "";
}

static bool is_taken(const Calibration &calibration, const ReceiverAnswer &now) {
    const ReceiverAnswer &before = calibration.before;
    switch (calibration.step) {
    case CalibrationStep::begin_ends:
        // Where a calibration was going on, the state alone does not show that it began again.
        return is_heard(now, rc_calibrating) &&
               (before.state != rc_calibrating || moved_channels(now).empty());
    case CalibrationStep::finish_ends:
        return is_heard(now, rc_present);
    case CalibrationStep::take_centres:
        return is_heard(now, rc_present) && has_new_centres(before, now);
    }
    return false;
}

static void command_and_look(Job &job, Calibration &calibration, TimePoint now) {
    job.commands = {calibration_command(calibration.step, calibration.receiver)};
    job.request = channels_request(answer_seconds, calibration.answers);
    job.request.due = now + from_seconds(take_seconds);
    ++calibration.looks;
}

static std::optional<HttpReply> go_on(Job &job, Calibration &calibration, bool is_answered,
                                      TimePoint now) {
    if (!is_answered) {
        return error_reply(504, calibration.looks == 0 ? "the board does not answer"
                                                       : "sent, but the board does not answer now");
    }
    const std::string name = "RC" + std::to_string(calibration.receiver);
    const ReceiverAnswer &receiver =
        calibration.answers[static_cast<size_t>(calibration.receiver - 1)];
    if (calibration.looks == 0) {
        if (const std::string reason = refusal(calibration.step, receiver); !reason.empty()) {
            return error_reply(409, name + reason);
        }
        calibration.before = receiver;
    } else if (is_taken(calibration, receiver)) {
        return json_reply(200, "{}");
    } else if (calibration.looks >= most_looks) {
        return error_reply(504, "the board did not confirm this step of " + name);
    }
    command_and_look(job, calibration, now);
    return std::nullopt;
}

Job calibration_job(CalibrationStep step, int receiver) {
    const auto calibration = std::make_shared<Calibration>();
    calibration->step = step;
    calibration->receiver = receiver;
    Job job;
    job.request = channels_request(answer_seconds, calibration->answers);
    job.go_on = [calibration](Job &going, bool is_answered, TimePoint now) {
        return go_on(going, *calibration, is_answered, now);
    };
    return job;
}
