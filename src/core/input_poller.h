#pragma once

#include <cstdint>

// The three GPIO inputs: recording trigger, recording button, shot button. All are pulled up and
// active low. An input is examined only when more than 300 ms have passed since any of them was
// examined last.

// What the poller remembers.
struct InputState {
    int button;                   // 1: press seen
    int shot;                     // 1: press seen
    uint32_t last_input_event_ms; // now_ms() when an input was last examined; 0 to start with
};

enum class InputAction : uint8_t { none, start_recording, stop_recording, shot };

// Is it time to examine an input again? Differences wrap, so a clock set back counts as yes.
bool input_is_due(const InputState &state, uint32_t now);

// What a level (0 low, 1 high, negative: not readable, which counts as not low) asks for.
// Recording runs while the trigger is low; each press of the button toggles it.
InputAction examine_trigger(int level, bool recording);
InputAction examine_button(InputState &state, int level, bool recording);
InputAction examine_shot(InputState &state, int level);

// The state to start with, read from the inputs that the configuration uses.
InputState initial_input_state();

// One pass over the inputs that the configuration uses, carrying out what they ask for. Main
// thread.
void poll_inputs(InputState &state);
