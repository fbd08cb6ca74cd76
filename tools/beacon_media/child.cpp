#include "beacon_media/child.h"

#include "source/complain.h"
#include "source/spawn.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

bool start_child(Child &child, const std::string &command, bool is_nonblocking) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        complain("cannot make a pipe: %s", strerror(errno));
        return false;
    }
    const int error = spawn_program(child.pid, {"sh", "-c", command}, {{ends[1], STDOUT_FILENO}});
    close(ends[1]);
    if (error != 0) {
        complain("cannot start a shell: %s", strerror(error));
        close(ends[0]);
        child.pid = -1;
        return false;
    }
    if (is_nonblocking) {
        fcntl(ends[0], F_SETFL, O_NONBLOCK);
    }
    child.fd = ends[0];
    return true;
}

static std::string status_words(int status) {
    if (WIFSIGNALED(status)) {
        return "ended by signal " + std::to_string(WTERMSIG(status));
    }
    return "ended with status " + std::to_string(WEXITSTATUS(status));
}

// Its process takes a moment to end after its output did.
static bool has_ended(pid_t pid, int &status, int milliseconds) {
    for (int i = 0; i <= milliseconds; i += 10) {
        if (waitpid(pid, &status, WNOHANG) == pid) {
            return true;
        }
        usleep(10000);
    }
    return false;
}

std::string end_child(Child &child) {
    if (child.fd >= 0) {
        close(child.fd);
        child.fd = -1;
    }
    if (child.pid <= 0) {
        return "ended";
    }
    int status = 0;
    constexpr int moment_ms = 50;
    constexpr int patience_ms = 1000;
    bool is_over = has_ended(child.pid, status, moment_ms);
    if (!is_over) {
        kill(-child.pid, SIGTERM);
        is_over = has_ended(child.pid, status, patience_ms);
    }
    // Whatever it left behind in its session.
    kill(-child.pid, SIGKILL);
    while (!is_over && waitpid(child.pid, &status, 0) < 0 && errno == EINTR) {
    }
    child.pid = -1;
    return status_words(status);
}
