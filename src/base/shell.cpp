#include "base/shell.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

constexpr const char *shell_path = "/bin/sh";
constexpr int no_pipe = -1;
constexpr int64_t kill_grace_ms = 1000; // for a killed process to end
constexpr int look_period_ms = 2;       // when there is no descriptor to wait with
constexpr size_t piece_size = 4096;

// Shells that were killed but have not ended yet. More than these are never reaped.
static std::atomic<pid_t> left_behind[32];

static int64_t monotonic_ms() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<int64_t>(time.tv_sec) * 1000 + time.tv_nsec / 1000000;
}

// Waits until `fd` has data or all its writers have closed it. Returns false at the deadline.
static bool wait_readable(int fd, int64_t deadline) {
    for (;;) {
        pollfd wanted{fd, POLLIN, 0};
        const int64_t rest = std::max<int64_t>(deadline - monotonic_ms(), 0);
        const int ready = poll(&wanted, 1, static_cast<int>(rest));
        if (ready >= 0 || errno != EINTR) {
            return ready > 0;
        }
    }
}

// Reaps a child. Returns false while it is running.
static bool reap(pid_t pid) {
    siginfo_t info{};
    return TEMP_FAILURE_RETRY(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG)) !=
               0 ||
           info.si_pid == pid;
}

static void leave_behind(pid_t pid) {
    for (std::atomic<pid_t> &place : left_behind) {
        pid_t empty = 0;
        if (place.compare_exchange_strong(empty, pid)) {
            return;
        }
    }
}

static void reap_left_behind() {
    for (std::atomic<pid_t> &place : left_behind) {
        // Taken out of the list, so that no other thread reaps it.
        const pid_t pid = place.load() == 0 ? 0 : place.exchange(0);
        if (pid != 0 && !reap(pid)) {
            leave_behind(pid);
        }
    }
}

// Like wait_for_end, by polling: there is no descriptor for the process.
static bool look_for_end(pid_t pid, int64_t deadline) {
    while (!reap(pid)) {
        if (monotonic_ms() >= deadline) {
            return false;
        }
        poll(nullptr, 0, look_period_ms);
    }
    return true;
}

// Waits until the child has ended and reaps it. Returns false at the deadline.
static bool wait_for_end(pid_t pid, int64_t deadline) {
    const int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (fd < 0) {
        return look_for_end(pid, deadline);
    }
    const bool has_ended = wait_readable(fd, deadline);
    close(fd);
    return has_ended && reap(pid);
}

// Waits until a killed group has no member left, which includes zombies that nobody has reaped.
static void wait_for_group(pid_t pid, int64_t deadline) {
    while (kill(-pid, 0) == 0 && monotonic_ms() < deadline) {
        poll(nullptr, 0, look_period_ms);
    }
}

// Kills the group of a shell that has not been reaped, so its number cannot have been reused.
static void kill_group(pid_t pid) {
    const int64_t deadline = monotonic_ms() + kill_grace_ms;
    kill(-pid, SIGKILL);
    if (wait_for_end(pid, deadline)) {
        wait_for_group(pid, deadline);
    } else {
        leave_behind(pid);
    }
}

// Returns the process id, or -1.
static pid_t spawn_shell(const char *command, int output) {
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF |
                                              POSIX_SPAWN_SETSIGMASK);
    sigset_t signals;
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&attributes, &signals);
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (output != no_pipe) {
        posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    }
    const char *arguments[] = {"sh", "-c", command, nullptr};
    pid_t pid = -1;
    const int error = posix_spawn(&pid, shell_path, &actions, &attributes,
                                  const_cast<char **>(arguments), environ); // changes neither
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    return error == 0 ? pid : -1;
}

static void report_kill(const char *command, uint32_t limit_ms) {
    const std::string first_line(command, strcspn(command, "\n"));
    fprintf(stderr, "Command killed after %u s: %s\n", limit_ms / 1000, first_line.c_str());
}

void run_shell(const char *command, uint32_t limit_ms) {
    const int64_t deadline = monotonic_ms() + limit_ms;
    reap_left_behind();
    const pid_t pid = spawn_shell(command, no_pipe);
    if (pid > 0 && !wait_for_end(pid, deadline)) {
        kill_group(pid);
        report_kill(command, limit_ms);
    }
}

bool start_shell(const char *command, ShellCommand &started) {
    reap_left_behind();
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return false;
    }
    started = {spawn_shell(command, ends[1]), ends[0]};
    close(ends[1]);
    if (started.pid < 0) {
        close(started.output);
    }
    return started.pid > 0;
}

void end_shell(const ShellCommand &started) {
    close(started.output);
    kill_group(started.pid);
}

// Reads until the end or the limit. Returns false at the deadline.
static bool read_output(int fd, std::string &output, size_t limit, int64_t deadline) {
    char piece[piece_size];
    while (output.size() < limit) {
        if (!wait_readable(fd, deadline)) {
            return false;
        }
        const ssize_t length =
            TEMP_FAILURE_RETRY(read(fd, piece, std::min(sizeof piece, limit - output.size())));
        if (length <= 0) {
            break;
        }
        output.append(piece, static_cast<size_t>(length));
    }
    return true;
}

// Has the child ended? Does not reap it.
static bool has_ended(pid_t pid) {
    siginfo_t info{};
    return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == pid;
}

std::string shell_output_bytes(const char *command, size_t limit, uint32_t limit_ms) {
    const int64_t deadline = monotonic_ms() + limit_ms;
    std::string output;
    ShellCommand started{};
    if (!start_shell(command, started)) {
        return output;
    }
    const bool is_read = read_output(started.output, output, limit, deadline);
    close(started.output);
    if (is_read && wait_for_end(started.pid, deadline)) {
        return output;
    }
    if (!has_ended(started.pid)) {
        output.clear();
    }
    kill_group(started.pid);
    report_kill(command, limit_ms);
    return output;
}

std::string shell_output(const char *command, size_t limit, uint32_t limit_ms) {
    std::string output = shell_output_bytes(command, limit, limit_ms);
    output.resize(strnlen(output.data(), output.size()));
    return output;
}

static bool is_plain(unsigned char c) {
    return c > 127 || std::isalnum(c) != 0 || (c != 0 && std::strchr("_.,:/@%+=-", c) != nullptr);
}

static bool is_plain_word(const std::string &value) {
    size_t begin = 0;
    size_t end = value.size();
    if (end >= 2 && value.front() == '"' && value.back() == '"') {
        begin = 1;
        end -= 1;
    }
    for (size_t i = begin; i < end; ++i) {
        if (!is_plain(static_cast<unsigned char>(value[i]))) {
            return false;
        }
    }
    return true;
}

// Without the blanks and line ends around it, which an unquoted value would lose in the shell.
static std::string stripped(const std::string &value) {
    constexpr const char *blanks = " \t\r\n";
    const size_t begin = std::min(value.find_first_not_of(blanks), value.size());
    return value.substr(begin, value.find_last_not_of(blanks) + 1 - begin);
}

std::string shell_word(const char *value) {
    // Check and return the same text even if another thread changes the setting meanwhile.
    std::string copy = stripped(value);
    if (is_plain_word(copy)) {
        return copy;
    }
    std::string word = "'";
    for (const char c : copy) {
        if (c == '\'') {
            word += R"('\'')";
        } else {
            word += c;
        }
    }
    return word + "'";
}

std::string shell_quoted_text(const char *value) {
    std::string text;
    for (const char c : stripped(value)) {
        if (std::strchr("\"$`\\", c) != nullptr) {
            text += '\\';
        }
        text += c;
    }
    return text;
}
