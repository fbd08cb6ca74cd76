#include "bcm_host.h"

#include <cstdio>

void bcm_host_init() {
    fputs("bcm_host_init\n", stderr);
}
