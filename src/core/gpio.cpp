#include "core/gpio.h"

#include <cstdio>
#include <pigpio.h>

constexpr unsigned gpio_socket_port = 8890;
constexpr unsigned primary_dma_channel = 8;
constexpr unsigned secondary_dma_channel = 6;

void start_gpio() {
    gpioCfgSocketPort(gpio_socket_port);
    gpioCfgDMAchannels(primary_dma_channel, secondary_dma_channel);
    if (gpioInitialise() < 0) {
        fputs("Failed to init GPIO subsystem\n", stderr);
    } else {
        fputs("GPIO subsystem init done\n", stderr);
    }
}

void use_as_input(unsigned pin) {
    gpioSetMode(pin, PI_INPUT);
    gpioSetPullUpDown(pin, PI_PUD_UP);
}

int read_level(unsigned pin) {
    return gpioRead(pin);
}
