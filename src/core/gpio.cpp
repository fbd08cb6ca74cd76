#include "core/gpio.h"

#include "config/config.h"

#include <array>
#include <csignal>
#include <cstdio>
#include <pigpio.h>

constexpr unsigned gpio_socket_port = 8890;
constexpr unsigned primary_dma_channel = 8;
constexpr unsigned secondary_dma_channel = 6;

// The process's action for each signal, by signal number. Signals whose action cannot be changed
// stay out of it: the kernel refuses to report them and to set them.
using SignalActions = std::array<struct sigaction, NSIG>;

static SignalActions signal_actions() {
    SignalActions actions{};
    for (int signal = 1; signal < NSIG; ++signal) {
        sigaction(signal, nullptr, &actions[static_cast<size_t>(signal)]);
    }
    return actions;
}

// All but SIGPIPE: the library's own threads write to sockets that may be closed.
static void restore_signal_actions(const SignalActions &actions) {
    for (int signal = 1; signal < NSIG; ++signal) {
        if (signal != SIGPIPE) {
            sigaction(signal, &actions[static_cast<size_t>(signal)], nullptr);
        }
    }
}

// The library installs handlers for all signals. If they stayed, the end of every shell command
// would interrupt the system calls that other threads block in, and signals meant to end the daemon
// would not.
static bool initialise_library() {
    const SignalActions actions = signal_actions();
    const bool is_initialised = gpioInitialise() >= 0;
    restore_signal_actions(actions);
    return is_initialised;
}

void start_gpio() {
    gpioCfgSocketPort(gpio_socket_port);
    gpioCfgDMAchannels(primary_dma_channel, secondary_dma_channel);
    fputs(initialise_library() ? "GPIO subsystem init done\n" : "Failed to init GPIO subsystem\n",
          stderr);
}

static void use_as_input(unsigned pin) {
    gpioSetMode(pin, PI_INPUT);
    gpioSetPullUpDown(pin, PI_PUD_UP);
}

void use_inputs(const ConfigRecord &config) {
    const uint8_t pins[] = {config.recording_gpio, config.recording_btn_gpio, config.shot_btn_gpio};
    for (const uint8_t pin : pins) {
        if (pin != 0) {
            use_as_input(pin);
        }
    }
}

int read_level(unsigned pin) {
    return gpioRead(pin);
}
