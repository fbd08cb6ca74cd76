#include "beacon_sim/gimbal.h"

#include "automove/camera_state_layout.h"
#include "base/shared_numbers.h"
#include "rc/rc_block_layout.h"

#include <algorithm>
#include <charconv>
#include <cmath>

constexpr double senses[gimbal_axes] = {-1.0, 1.0, -1.0};
constexpr int first_axis_function = 2; // pan, tilt and roll are functions 2, 3 and 4

static bool parse_tenths(const std::string &text, double &degrees) {
    double tenths = 0.0;
    const char *end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, tenths);
    if (error != std::errc{} || stopped != end || !std::isfinite(tenths)) {
        return false;
    }
    degrees = std::clamp(tenths / 10.0, -gimbal_reach, gimbal_reach);
    return true;
}

bool order_gimbal(Gimbal &gimbal, const SourceCommand &command) {
    if (command.cmd != "position" || (command.param != "abs" && command.param != "hold")) {
        return false;
    }
    double target[gimbal_axes];
    for (int axis = 0; axis < gimbal_axes; ++axis) {
        if (!parse_tenths(command.values[axis], target[axis])) {
            return false;
        }
    }
    std::copy_n(target, gimbal_axes, gimbal.target);
    gimbal.is_sent = true;
    return true;
}

static double clean_speed(double speed) {
    return std::isfinite(speed) ? std::clamp(speed, -1.0, 1.0) : 0.0;
}

void turn_gimbal(Gimbal &gimbal, const double *speeds, double seconds) {
    const double most = gimbal_turn_rate * seconds;
    double turns[gimbal_axes];
    for (int axis = 0; axis < gimbal_axes; ++axis) {
        turns[axis] = senses[axis] * clean_speed(speeds[axis]) * most;
    }
    if (std::any_of(turns, turns + gimbal_axes, [](double turn) { return turn != 0.0; })) {
        gimbal.is_sent = false;
    }
    for (int axis = 0; axis < gimbal_axes; ++axis) {
        double &angle = gimbal.angles[axis];
        const double turn =
            gimbal.is_sent ? std::clamp(gimbal.target[axis] - angle, -most, most) : turns[axis];
        angle = std::clamp(angle + turn, -gimbal_reach, gimbal_reach);
    }
}

double widest_angle(const Gimbal &gimbal) {
    double widest = 0.0;
    for (const double angle : gimbal.angles) {
        widest = std::max(widest, std::abs(angle));
    }
    return widest;
}

void read_gimbal_speeds(const uint8_t *rc_block, double *speeds) {
    for (size_t axis = 0; axis < gimbal_axes; ++axis) {
        speeds[axis] = load_whole<double>(rc_block + rc_values_at +
                                          (first_axis_function + axis) * sizeof(double));
    }
}

static void put_angle(uint8_t *at, double degrees) {
    store_whole(at, static_cast<int16_t>(std::lround(degrees * 10.0)));
}

void write_camera_state(const Gimbal &gimbal, uint8_t *state) {
    put_angle(state + camera_pan_at, gimbal.angles[0]);
    put_angle(state + camera_tilt_at, gimbal.angles[1]);
    put_angle(state + camera_roll_at, gimbal.angles[2]);
}
