#include "beaconctl/command_line.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/fail.h"
#include "beaconctl/screen.h"
#include "beaconctl/stop.h"

#include <exception>
#include <fcntl.h>
#include <unistd.h>

// If a standard descriptor is closed, the next file that is opened would get its number. So it is
// replaced by one on which reads or writes fail, as they would on a closed one.
static void occupy_standard_descriptors() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) < 0) {
            (void)!open("/dev/null", (fd == STDIN_FILENO ? O_WRONLY : O_RDONLY) | O_CLOEXEC);
        }
    }
}

int main(int argc, char **argv) {
    occupy_standard_descriptors();
    catch_stop_signals();
    int code = exit_failed;
    try {
        code = run_command_line(argc, argv);
    } catch (const std::exception &problem) {
        fail(problem.what());
    }
    return finish_output(code);
}
