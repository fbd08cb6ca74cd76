#include "beaconctl/child_program.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

bool has_program(const std::string &name) {
    const char *path = getenv("PATH"); // NOLINT(concurrency-mt-unsafe): there is one thread
    const std::string folders = path == nullptr ? "/usr/bin:/bin" : path;
    if (name.find('/') != std::string::npos) {
        return access(name.c_str(), X_OK) == 0;
    }
    for (size_t at = 0; at <= folders.size();) {
        const size_t end = std::min(folders.find(':', at), folders.size());
        if (access((folders.substr(at, end - at) + "/" + name).c_str(), X_OK) == 0) {
            return true;
        }
        at = end + 1;
    }
    return false;
}

[[noreturn]] static void become(const std::vector<std::string> &words, int input) {
    std::vector<char *> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string &word : words) {
        arguments.push_back(const_cast<char *>(word.c_str()));
    }
    arguments.push_back(nullptr);
    setpgid(0, 0);
    dup2(input, STDIN_FILENO);
    signal(SIGPIPE, SIG_DFL);
    execvp(arguments[0], arguments.data());
    _exit(127);
}

bool start_program(const std::vector<std::string> &words, ChildProgram &child) {
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return false;
    }
    child.pid = fork();
    if (child.pid == 0) {
        become(words, ends[0]);
    }
    const int reason = errno;
    close(ends[0]);
    child.input = ends[1];
    if (child.pid < 0) {
        close(ends[1]);
        errno = reason;
    }
    return child.pid > 0;
}

static int exit_status(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int end_program(ChildProgram &child, int signal) {
    constexpr int patience_ms = 2000;
    constexpr int turn_ms = 20;
    close(child.input);
    int status = 0;
    if (signal != 0) {
        kill(child.pid, signal);
        for (int waited = 0; waited < patience_ms; waited += turn_ms) {
            if (waitpid(child.pid, &status, WNOHANG) == child.pid) {
                child = {};
                return exit_status(status);
            }
            usleep(turn_ms * 1000);
        }
        kill(child.pid, SIGKILL); // a player that is just starting may not notice
    }
    while (waitpid(child.pid, &status, 0) < 0 && errno == EINTR) {
    }
    child = {};
    return exit_status(status);
}
