#include "beacon_media/raspivid.h"

#include "beacon_media/raspivid_words.h"
#include "source/complain.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

constexpr int not_found_status = 127;

// It has had two names.
static void run_camera(std::vector<std::string> &options) {
    options.insert(options.begin(), "rpicam-vid");
    for (const char *name : {"rpicam-vid", "libcamera-vid"}) {
        options[0] = name;
        std::vector<char *> argv;
        argv.reserve(options.size() + 1);
        for (std::string &option : options) {
            argv.push_back(option.data());
        }
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
    }
    complain("cannot start rpicam-vid: %s", strerror(errno));
}

int run_raspivid(int argc, char **argv) {
    CameraWords words = translate_camera_options({argv + 1, argv + argc});
    for (const std::string &option : words.unknown) {
        complain("rpicam-vid has nothing like %s", option.c_str());
    }
    // The daemon kills this process by its name; the camera must not stay behind.
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() == parent) {
            run_camera(words.options);
        }
        _exit(not_found_status);
    }
    // The camera alone holds the pipe: when it ends, the daemon sees the end.
    close(STDOUT_FILENO);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : not_found_status;
}
