#pragma once

// Polls the three GPIO inputs: recording trigger, recording button, shot button.
// Stands on: config/config, config/update, core/gpio, media/data_source.

#include <cstdint>

// All are pulled up and active low. An input is examined only when more than 300 ms have passed
// since any of the three was last examined.

// What the poller remembers.
struct InputState {
    int button;                   // 1: press seen
    int shot;                     // 1: press seen
    uint32_t last_input_event_ms; // now_ms() when an input was last examined; initially 0
};

enum class InputAction : uint8_t { none, start_recording, stop_recording, shot };

// Is it time to examine an input again? The difference wraps, so yes after the clock is set back.
bool input_is_due(const InputState &state, uint32_t now);

// The action for a level: 0 is low, 1 high; negative is unreadable and treated as high. Recording
// runs while the trigger is low; each press of the button toggles it.
InputAction examine_trigger(int level, bool recording);
InputAction examine_button(InputState &state, int level, bool recording);
InputAction examine_shot(InputState &state, int level);

// The initial state, read from the inputs that the settings name.
InputState initial_input_state();

// Polls the inputs that the settings name and carries out their actions. Main thread.
void poll_inputs(InputState &state);
