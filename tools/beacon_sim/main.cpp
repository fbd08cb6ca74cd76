#include "beacon_sim/options.h"
#include "beacon_sim/simulation.h"

#include <cstdio>

int main(int argc, char **argv) {
    // A command should be seen at once, also in a file or a pipe.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    Options options;
    int status = 0;
    if (!parse_options(argc, argv, options, status)) {
        return status;
    }
    return run_simulation(options);
}
