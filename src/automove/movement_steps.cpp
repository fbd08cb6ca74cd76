#include "automove/movement_steps.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>

constexpr double angle_not_set = -1000.0;
constexpr uint32_t second_ms = 1000;
constexpr uint32_t settle_ms = 100;
constexpr double smallest_ratio = 1.0;
constexpr double largest_ratio = 5.0;

__attribute__((format(printf, 1, 2))) static std::string text_of(const char *format, ...) {
    char text[1200]; // three doubles print at most 310 digits each
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return text;
}

static MovementStep say(std::string message) {
    return {std::move(message), false, "", "", "", "", "", 0};
}

static void add_position(const Movement &m, std::vector<MovementStep> &steps) {
    if (m.pan == angle_not_set || m.tilt == angle_not_set || m.roll == angle_not_set) {
        return;
    }
    steps.push_back(
        say(text_of("\tMoving to pan %1.1f tilt %1.1f roll %1.1f\n", m.pan, m.tilt, m.roll)));
    const std::string pan = text_of("%1.1f", m.pan * 10);
    const std::string tilt = text_of("%1.1f", m.tilt * 10);
    const std::string roll = text_of("%1.1f", m.roll * 10);
    steps.push_back({"", true, "position", "abs", pan, tilt, roll, second_ms});
    if (m.hold != 0) {
        steps.push_back({"", true, "position", "hold", pan, tilt, roll, 0});
    }
}

static void add_exposure(const Movement &m, std::vector<MovementStep> &steps) {
    if (m.ev >= -3.0 && m.ev <= 3.0) {
        steps.push_back(say(text_of("\tSet EV %1.1f\n", m.ev)));
        steps.push_back({"", true, "ev", text_of("%1.1f", m.ev), "", "", "", settle_ms});
    }
}

static void add_zoom(const Movement &m, std::vector<MovementStep> &steps) {
    if (m.zoom >= 1.0 && m.zoom <= 8.0) {
        steps.push_back(say(text_of("\tSet zoom %1.1f\n", m.zoom)));
        steps.push_back({"", true, "dzoom", "set", text_of("%d", static_cast<int>(m.zoom * 100)),
                         "", "", settle_ms});
    }
}

static void add_auto_focus(const Movement &m, std::vector<MovementStep> &steps) {
    if (m.afx >= 0.0 && m.afx <= 1.0 && m.afy >= 0.0 && m.afy <= 1.0) {
        steps.push_back({"", true, "focus", "type", "af", "", "", second_ms});
        steps.push_back(say(text_of("\tSet AF point %f, %f\n", m.afx, m.afy)));
        steps.push_back({"", true, "focus", "point", text_of("%1f", m.afx), text_of("%1f", m.afy),
                         "", settle_ms});
    }
}

static void add_manual_focus(const Movement &m, std::vector<MovementStep> &steps) {
    if (m.mf >= 0.0 && m.mf <= 100.0) {
        const double sent = m.mf + 1;
        steps.push_back({"", true, "focus", "type", "mf", "", "", second_ms});
        steps.push_back(say(text_of("\tSet MF %1.0f\n", sent)));
        steps.push_back({"", true, "focus", "manual", text_of("%1.0f", sent), "", "", settle_ms});
    }
}

static void add_shot(const Movement &m, std::vector<MovementStep> &steps) {
    if (m.shot == 0) {
        return;
    }
    const int seconds = std::max(m.delay, 1);
    MovementStep wait = say(text_of("\tWaiting %d seconds\n", seconds));
    wait.wait_ms = static_cast<uint64_t>(seconds) * second_ms;
    wait.is_delay = true;
    steps.push_back(wait);
    steps.push_back(say("\tMaking shot\n"));
    steps.push_back({"", true, "shot", "", "", "", "", 0});
}

std::vector<MovementStep> direct_movement_steps(const Movement &movement) {
    std::vector<MovementStep> steps;
    add_position(movement, steps);
    add_exposure(movement, steps);
    add_zoom(movement, steps);
    add_auto_focus(movement, steps);
    add_manual_focus(movement, steps);
    add_shot(movement, steps);
    return steps;
}

// Step per pass and arrival threshold in degrees, for a speed setting.
struct SmoothSpeed {
    double step;
    double threshold;
};

static SmoothSpeed smooth_speed(int setting) {
    switch (setting) {
    case 1:
        return {0.005, 0.8};
    case 2:
        return {0.01, 0.8};
    case 3:
        return {0.05, 2.5};
    case 4:
        return {0.1, 5.0};
    case 5:
        return {0.2, 5.0};
    case 6:
        return {0.5, 5.0};
    default:
        return {0.001, 0.8};
    }
}

// |numerator / denominator|, clamped to 1..5; 1 when it is NaN.
static double clamped_ratio(double numerator, double denominator) {
    const double ratio = std::fabs(numerator / denominator);
    if (!(ratio > smallest_ratio)) {
        return smallest_ratio;
    }
    return ratio < largest_ratio ? ratio : largest_ratio;
}

// One of two speeds, depending on the sign of the error; 0 near the target.
static double speed_for(double error, double threshold, double if_above, double if_below) {
    if (error >= threshold) {
        return if_above;
    }
    return error < -threshold ? if_below : 0.0;
}

SmoothPass smooth_movement_pass(const Movement &movement, const CameraAngles &camera, int speed) {
    const SmoothSpeed chosen = smooth_speed(speed);
    const double pan_error = movement.pan - camera.pan;
    const double tilt_error = movement.tilt - camera.tilt;
    const double roll_error = movement.roll - camera.roll;
    const double tilt_step = chosen.step / clamped_ratio(pan_error, tilt_error);
    const double roll_step = chosen.step / clamped_ratio(pan_error, roll_error);
    SmoothPass pass{};
    pass.speeds.pan = speed_for(pan_error, chosen.threshold, -chosen.step, chosen.step);
    pass.speeds.tilt = speed_for(tilt_error, chosen.threshold, tilt_step, -tilt_step);
    pass.speeds.roll = speed_for(roll_error, chosen.threshold, -roll_step, roll_step);
    pass.is_arrived = std::fabs(pan_error) <= chosen.threshold &&
                      std::fabs(tilt_error) <= chosen.threshold &&
                      std::fabs(roll_error) <= chosen.threshold;
    return pass;
}

double movement_distance(const Movement &movement, const CameraAngles &camera) {
    return std::fabs(movement.tilt - camera.tilt) + std::fabs(movement.pan - camera.pan) +
           std::fabs(movement.roll - camera.roll);
}
