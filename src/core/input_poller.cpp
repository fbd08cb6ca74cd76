#include "core/input_poller.h"

#include "base/clock.h"
#include "config/config.h"
#include "config/update.h"
#include "core/gpio.h"
#include "media/data_source.h"

#include <cstdio>
#include <cstring>

constexpr uint32_t debounce_ms = 300;
constexpr const char *start_command =
    R"({"cmd":"updateconfig","param":"rec","value":"1","value2":"","value3":""})";
constexpr const char *stop_command =
    R"({"cmd":"updateconfig","param":"rec","value":"0","value2":"","value3":""})";
constexpr const char *shot_command = R"(!{"cmd":"shot","param":""})";

bool input_is_due(const InputState &state, uint32_t now) {
    return now - state.last_input_event_ms > debounce_ms;
}

static InputAction toggle(bool recording) {
    return recording ? InputAction::stop_recording : InputAction::start_recording;
}

InputAction examine_trigger(int level, bool recording) {
    const bool wanted = level == 0;
    return wanted == recording ? InputAction::none : toggle(recording);
}

// Is this a new press, not a held or released button?
static bool pressed_now(int &seen, int level) {
    const bool is_new = level == 0 && seen != 1;
    seen = level == 0 ? 1 : 0;
    return is_new;
}

InputAction examine_button(InputState &state, int level, bool recording) {
    return pressed_now(state.button, level) ? toggle(recording) : InputAction::none;
}

InputAction examine_shot(InputState &state, int level) {
    return pressed_now(state.shot, level) ? InputAction::shot : InputAction::none;
}

static void carry_out(InputAction action) {
    switch (action) {
    case InputAction::start_recording:
        apply_config_update(start_command);
        break;
    case InputAction::stop_recording:
        apply_config_update(stop_command);
        break;
    case InputAction::shot:
        fputs("MAKE A SHOT\n", stderr);
        send_to_data_source(shot_command, strlen(shot_command));
        break;
    case InputAction::none:
        break;
    }
}

static bool is_recording() {
    return config_record().recording_enabled != 0;
}

InputState initial_input_state() {
    const ConfigRecord &config = config_record();
    const uint8_t button = config.recording_btn_gpio;
    const uint8_t shot = config.shot_btn_gpio;
    return {button != 0 ? read_level(button) : 0, shot != 0 ? read_level(shot) : 0, 0};
}

// Polls one input; `examine` returns the action for its level.
static void poll_input(InputState &state, uint8_t pin,
                       InputAction (*examine)(InputState &state, int level)) {
    const int level = read_level(pin);
    if (input_is_due(state, now_ms())) {
        carry_out(examine(state, level));
        state.last_input_event_ms = now_ms(); // read again: the action may have taken long
    }
}

static InputAction examine_live_trigger(InputState & /*state*/, int level) {
    return examine_trigger(level, is_recording());
}

static InputAction examine_live_button(InputState &state, int level) {
    return examine_button(state, level, is_recording());
}

// The settings may change at any time, so each is read just before its input is polled.
void poll_inputs(InputState &state) {
    const ConfigRecord &config = config_record();
    if (const uint8_t trigger = config.recording_gpio; trigger != 0) {
        poll_input(state, trigger, examine_live_trigger);
    }
    if (const uint8_t button = config.recording_btn_gpio; button != 0) {
        poll_input(state, button, examine_live_button);
    }
    // No photos while recording.
    if (const uint8_t shot = config.shot_btn_gpio; shot != 0 && !is_recording()) {
        poll_input(state, shot, examine_shot);
    }
}
