#include "beaconctl/command_line.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/link.h"

#include <cstdio>
#include <exception>

int main(int argc, char **argv) {
    catch_stop_signals();
    try {
        return run_command_line(argc, argv);
    } catch (const std::exception &problem) {
        fprintf(stderr, "beaconctl: %s\n", problem.what());
        return exit_failed;
    }
}
