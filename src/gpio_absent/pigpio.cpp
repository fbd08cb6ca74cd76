#include "pigpio.h"

int gpioCfgSocketPort(unsigned /*port*/) {
    return 0;
}

int gpioCfgDMAchannels(unsigned /*primary_channel*/, unsigned /*secondary_channel*/) {
    return 0;
}

int gpioInitialise() {
    return PI_INIT_FAILED;
}

int gpioSetMode(unsigned /*gpio*/, unsigned /*mode*/) {
    return PI_NOT_INITIALISED;
}

int gpioSetPullUpDown(unsigned /*gpio*/, unsigned /*pud*/) {
    return PI_NOT_INITIALISED;
}

int gpioRead(unsigned /*gpio*/) {
    return PI_NOT_INITIALISED;
}
