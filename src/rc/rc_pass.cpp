#include "rc/rc_pass.h"

#include "base/shared_numbers.h"

#include <algorithm>
#include <cstdio>

constexpr uint32_t stale_ms = 301;
constexpr double menu_dead_zone = 0.02;
constexpr double smoothing_unit = 0.01;
constexpr double no_smoothing_step = 1.0;

// Sums and raw values per function, rebuilt in each pass.
struct FunctionValues {
    double sum[rc_function_count];
    uint16_t raw[rc_function_count];
};

static int sign_of(double value) {
    return value > 0.0 ? 1 : value < 0.0 ? -1 : 0;
}

static void lose_receiver(uint8_t *block, int receiver) {
    fprintf(stderr, "RC%d lost\n", receiver + 1);
    for (int i = 0; i < rc_channels_per_receiver; ++i) {
        uint8_t *channel = rc_channel(block, receiver * rc_channels_per_receiver + i);
        store_whole<uint16_t>(channel + channel_raw_at, 0);
        store_whole(channel + channel_value_at, 0.0);
    }
}

// Checks for found, stale and lost, in this order: a stale block can be all three in one pass.
static void watch_receiver(uint8_t *block, int receiver, const char *channels, uint32_t (*clock)(),
                           bool &present) {
    uint8_t *state_byte = block + rc_state_at + receiver;
    uint8_t *update_field = block + rc_update_at + receiver * 4;
    // Read this before the clock: an update in between must not look 49 days old.
    uint32_t update_time = load_whole<uint32_t>(update_field);
    const uint32_t now = clock();
    if (update_time != 0 && !present) {
        store_whole<uint8_t>(state_byte, rc_present);
        present = true;
        fprintf(stderr, "RC%d found\n", receiver + 1);
        load_rc_channels(block, receiver, channels);
    }
    if (update_time != 0 && now - update_time >= stale_ms) {
        update_time = 0;
        store_whole<uint32_t>(update_field, 0);
    }
    if (update_time == 0 && present) {
        store_whole<uint8_t>(state_byte, rc_absent);
        present = false;
        lose_receiver(block, receiver);
    }
    if (load_whole<uint8_t>(state_byte) == rc_absent && update_time != 0) {
        store_whole<uint8_t>(state_byte, rc_present);
    }
}

static void widen_calibration(uint8_t *channel, uint16_t raw) {
    uint16_t min = load_whole<uint16_t>(channel + channel_min_at);
    uint16_t max = load_whole<uint16_t>(channel + channel_max_at);
    // Store only changes: a client may restart the calibration in between.
    if (min == 0 || raw < min) {
        min = raw;
        store_whole<uint16_t>(channel + channel_min_at, min);
    }
    if (max == 0 || raw > max) {
        max = raw;
        store_whole<uint16_t>(channel + channel_max_at, max);
    }
    store_whole(channel + channel_center_at, static_cast<uint16_t>((max - min) / 2 + min));
}

static double ratio(int numerator, int denominator) {
    return denominator == 0 ? 0.0 : static_cast<double>(numerator) / denominator;
}

// How far the stick is outside its dead band, as a fraction of the way to the end.
static double deflection(const uint8_t *channel, uint16_t raw) {
    const int center = load_whole<uint16_t>(channel + channel_center_at);
    const int dead_band = load_whole<uint16_t>(channel + channel_dead_band_at);
    const int delta = raw - center;
    if (delta < -dead_band) {
        return ratio(dead_band + delta,
                     center - (load_whole<uint16_t>(channel + channel_min_at) + dead_band));
    }
    if (delta > dead_band) {
        return ratio(delta - dead_band,
                     load_whole<uint16_t>(channel + channel_max_at) - center - dead_band);
    }
    return 0.0;
}

static double scale_to_limit(uint8_t *channel, double value) {
    const uint16_t limit = load_whole<uint16_t>(channel + channel_limit_at);
    if (limit >= 1 && limit <= 100) {
        return value * limit * 0.01;
    }
    store_whole<uint16_t>(channel + channel_limit_at, 100);
    return value;
}

static void evaluate_channel(uint8_t *channel, bool is_calibrating, FunctionValues &functions) {
    const uint16_t raw = load_whole<uint16_t>(channel + channel_raw_at);
    const int function = load_whole<uint8_t>(channel + channel_function_at);
    const bool is_known = function < rc_function_count;
    if (is_calibrating) {
        widen_calibration(channel, raw);
    }
    if (is_known) {
        functions.raw[function] = raw;
    }
    if (raw == 0) {
        return;
    }
    double value = deflection(channel, raw);
    if (load_whole<uint8_t>(channel + channel_invert_at) != 0) {
        value = -value;
    }
    value = std::clamp(scale_to_limit(channel, value), -1.0, 1.0);
    store_whole(channel + channel_value_at, value);
    if (is_known && function != function_none) {
        functions.sum[function] += value;
    }
}

static void evaluate_channels(uint8_t *block, FunctionValues &functions) {
    for (int i = 0; i < rc_channel_count; ++i) {
        const uint8_t state =
            load_whole<uint8_t>(block + rc_state_at + i / rc_channels_per_receiver);
        evaluate_channel(rc_channel(block, i), state == rc_calibrating, functions);
    }
    for (int i = 0; i < rc_function_count; ++i) {
        store_whole<uint16_t>(block + rc_raw_values_at + i * 2, functions.raw[i]);
    }
}

static void add_menu_code(RcEvents &events, MenuCode code) {
    events.menu[events.menu_count++] = code;
}

// The value that the previous pass published.
static double published_value(const uint8_t *block, int function) {
    return load_whole<double>(block + rc_values_at + function * sizeof(double));
}

static void watch_menu_switch(const uint8_t *block, RcLoopState &state, RcEvents &events) {
    const int sign = sign_of(published_value(block, function_menu_switch));
    const bool is_rise = sign == 1 && state.menu_switch != 1;
    state.menu_switch = sign;
    if (!is_rise) {
        return;
    }
    state.is_menu_enabled = !state.is_menu_enabled;
    state.horizontal = 0;
    state.vertical = 0;
    add_menu_code(events, state.is_menu_enabled ? menu_enabled : menu_disabled);
}

static int direction_of(double value) {
    return value > menu_dead_zone ? 1 : value < -menu_dead_zone ? -1 : 0;
}

// A change of direction is an event, except a return to the centre.
static void watch_direction(double value, int &memory, MenuCode positive, MenuCode negative,
                            RcEvents &events) {
    const int direction = direction_of(value);
    if (direction == memory) {
        return;
    }
    memory = direction;
    if (direction != 0) {
        add_menu_code(events, direction > 0 ? positive : negative);
    }
}

// While the menu is open, the sticks control it and the gimbal does not move.
static void steer_menu(FunctionValues &functions, RcLoopState &state, RcEvents &events) {
    watch_direction(functions.sum[function_pan], state.horizontal, menu_right, menu_left, events);
    watch_direction(functions.sum[function_tilt], state.vertical, menu_up, menu_down, events);
    functions.sum[function_pan] = 0.0;
    functions.sum[function_tilt] = 0.0;
}

// A setting of 0 or less means no smoothing.
static double step_of(int32_t setting) {
    return setting > 0 ? smoothing_unit / setting : no_smoothing_step;
}

static double moved(double value, double target, double step) {
    if (value < target) {
        return std::min(value + step, target);
    }
    return value > target ? std::max(value - step, target) : value;
}

static GimbalValues moved(const GimbalValues &values, const GimbalValues &targets,
                          const GimbalValues &steps) {
    return {moved(values.pan, targets.pan, steps.pan), moved(values.tilt, targets.tilt, steps.tilt),
            moved(values.roll, targets.roll, steps.roll)};
}

static void smooth_gimbal(const ConfigRecord &config, const GimbalValues &app,
                          FunctionValues &functions, RcLoopState &state) {
    GimbalValues rc_steps{step_of(config.rc_pan_smooth), step_of(config.rc_tilt_smooth),
                          step_of(config.rc_roll_smooth)};
    if (functions.sum[function_smoothing_off] > 0.0) {
        rc_steps = {no_smoothing_step, no_smoothing_step, no_smoothing_step};
    }
    const GimbalValues app_steps{step_of(config.app_pan_smooth), step_of(config.app_tilt_smooth),
                                 step_of(config.app_roll_smooth)};
    const GimbalValues sticks{functions.sum[function_pan], functions.sum[function_tilt],
                              functions.sum[function_roll]};
    state.rc = moved(state.rc, sticks, rc_steps);
    state.app = moved(state.app, app, app_steps);
    state.total = {state.rc.pan + state.app.pan, state.rc.tilt + state.app.tilt,
                   state.rc.roll + state.app.roll};
    functions.sum[function_pan] = state.total.pan;
    functions.sum[function_tilt] = state.total.tilt;
    functions.sum[function_roll] = state.total.roll;
}

static void publish(uint8_t *block, const FunctionValues &functions) {
    for (int i = 0; i < rc_function_count; ++i) {
        store_whole(block + rc_values_at + i * sizeof(double),
                    std::clamp(functions.sum[i], -1.0, 1.0));
    }
}

static void add_record_command(RcEvents &events, RecordCommand command) {
    events.record[events.record_count++] = command;
}

// Either deflection starts recording, the centre stops it.
static void watch_record_switch(const uint8_t *block, RcLoopState &state, RcEvents &events) {
    const int sign = sign_of(published_value(block, function_record_switch));
    if (sign != state.record_switch) {
        state.record_switch = sign;
        add_record_command(events, sign == 0 ? RecordCommand::stop : RecordCommand::start);
    }
}

// Each new deflection toggles recording.
static void watch_record_toggle(const uint8_t *block, RcLoopState &state, RcEvents &events) {
    const int sign = sign_of(published_value(block, function_record_toggle));
    const bool is_new = sign != 0 && sign != state.record_toggle;
    state.record_toggle = sign;
    if (is_new) {
        add_record_command(events, state.toggle_stops ? RecordCommand::stop : RecordCommand::start);
        state.toggle_stops = !state.toggle_stops;
    }
}

RcEvents run_rc_pass(uint8_t *block, const ConfigRecord &config, uint32_t (*clock)(),
                     const GimbalValues &app, RcLoopState &state) {
    RcEvents events{};
    FunctionValues functions{};
    watch_receiver(block, 0, config.rc1_channels, clock, state.present[0]);
    watch_receiver(block, 1, config.rc2_channels, clock, state.present[1]);
    evaluate_channels(block, functions);
    watch_menu_switch(block, state, events);
    if (state.is_menu_enabled) {
        steer_menu(functions, state, events);
    }
    smooth_gimbal(config, app, functions, state);
    publish(block, functions);
    watch_record_switch(block, state, events);
    watch_record_toggle(block, state, events);
    return events;
}
