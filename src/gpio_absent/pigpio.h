#pragma once

// The six GPIO functions the daemon calls, for machines without the GPIO library. Built as a
// shared library of the same name, so that another one with the same functions can be put in its
// place at run time (the tests do so to drive the inputs).

#define PI_INPUT 0
#define PI_PUD_UP 2
#define PI_INIT_FAILED (-1)
#define PI_NOT_INITIALISED (-31)

extern "C" {
// Configuration before gpioInitialise: accepted, 0.
int gpioCfgSocketPort(unsigned port);
int gpioCfgDMAchannels(unsigned primary_channel, unsigned secondary_channel);
// Always PI_INIT_FAILED: this machine has no GPIO.
int gpioInitialise(void);
// Always PI_NOT_INITIALISED, as the library answers before it has been initialised.
int gpioSetMode(unsigned gpio, unsigned mode);
int gpioSetPullUpDown(unsigned gpio, unsigned pud);
int gpioRead(unsigned gpio);
}
