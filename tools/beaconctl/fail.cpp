#include "beaconctl/fail.h"

#include "beaconctl/exit_codes.h"

#include <cstdio>

int fail(const std::string &what) {
    fprintf(stderr, "beaconctl: %s\n", what.c_str());
    return exit_failed;
}
