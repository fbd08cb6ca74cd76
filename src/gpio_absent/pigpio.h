#pragma once

// A stand-in for the GPIO library, for machines without it.
// Stands on: nothing else of ours.

// Only the six functions that the daemon calls. Built as a shared library of the same name, so that
// another library with these functions can replace it at run time; the tests do this to drive the
// inputs.

#define PI_INPUT 0
#define PI_PUD_UP 2
#define PI_INIT_FAILED (-1)
#define PI_NOT_INITIALISED (-31)

extern "C" {
// Called before gpioInitialise; return 0.
int gpioCfgSocketPort(unsigned port);
int gpioCfgDMAchannels(unsigned primary_channel, unsigned secondary_channel);
// Always returns PI_INIT_FAILED: this machine has no GPIO.
int gpioInitialise(void);
// Always return PI_NOT_INITIALISED, as the library does before it is initialised.
int gpioSetMode(unsigned gpio, unsigned mode);
int gpioSetPullUpDown(unsigned gpio, unsigned pud);
int gpioRead(unsigned gpio);
}
