#include "beacon_web/options.h"
#include "beacon_web/server.h"

#include <cstdio>
#include <unistd.h>

int main(int argc, char **argv) {
    // A line should be seen at once, also in a file or a pipe.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    Options options;
    int status = 0;
    if (parse_options(argc, argv, options, status)) {
        status = run_server(options);
    }
    // The library's connections are left to the system.
    fflush(nullptr);
    _exit(status);
}
