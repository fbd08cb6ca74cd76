#include "subject.h"

#include "baseline.h"
#include "gstreamer.h"
#include "machine.h"
#include "media/frame_ring_layout.h"
#include "traced.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <initializer_list>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

constexpr const char *daemon_folder = "/run/quillorbeacon";
constexpr const char *daemon_settings = "/run/quillorbeacon/config.conf";
constexpr int stream_buffer_size = 64 << 20;

const char *subject_name(SubjectKind kind) {
    constexpr const char *names[] = {"daemon", "plain", "limit", "GStreamer"};
    return names[static_cast<int>(kind)];
}

const char *ring_name(SubjectKind kind) {
    return kind == SubjectKind::daemon ? main_ring_name : baseline_ring_name;
}

static void remove_rings() {
    shm_unlink(main_ring_name);
    shm_unlink(transcoding_ring_name);
    shm_unlink(baseline_ring_name);
}

static void be_silent() {
    const int null = open("/dev/null", O_RDWR);
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        dup2(null, stream);
    }
    close(null);
}

static void configure(DaemonMode mode) {
    mkdir(daemon_folder, 0755);
    FILE *file = fopen(daemon_settings, "we");
    if (file == nullptr) {
        perror(daemon_settings);
        _exit(EXIT_FAILURE);
    }
    fputs("audio_enabled=1\n", file);
    fputs(mode == DaemonMode::searching_storage ? "" : "recording_place=2\n", file);
    fclose(file);
}

[[noreturn]] static void become_daemon(const DaemonPlan &daemon) {
    configure(daemon.mode);
    be_silent();
    if (daemon.mode == DaemonMode::traced) {
        become_traced(daemon.path);
    }
    execl(daemon.path, daemon.path, static_cast<char *>(nullptr));
    _exit(EXIT_FAILURE);
}

// Ends of two pipes of sockets between the benchmark and a subject that has just been forked.
struct Pairs {
    int start[2]; // a byte on it: start
    int stream[2];
};

[[noreturn]] static void become_subject(SubjectKind kind, const DaemonPlan &daemon, int clients,
                                        LoadKind load, const Pairs &pairs) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    use_subject_core();
    char byte = 0;
    if (read(pairs.start[0], &byte, 1) != 1) {
        _exit(EXIT_FAILURE);
    }
    if (kind == SubjectKind::daemon) {
        become_daemon(daemon);
    }
    if (kind == SubjectKind::gstreamer) {
        be_silent();
        become_gstreamer(load, clients, pairs.stream[0]);
    }
    run_baseline(kind == SubjectKind::plain ? Pacing::plain : Pacing::limit, clients);
}

static Pairs open_pairs() {
    Pairs pairs{};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pairs.start) != 0 ||
        socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pairs.stream) != 0) {
        perror("socketpair");
        exit(EXIT_FAILURE);
    }
    setsockopt(pairs.stream[1], SOL_SOCKET, SO_SNDBUFFORCE, &stream_buffer_size,
               sizeof stream_buffer_size);
    return pairs;
}

Subject start_subject(SubjectKind kind, const DaemonPlan &daemon, int clients, LoadKind load) {
    remove_rings();
    fflush(nullptr);
    const Pairs pairs = open_pairs();
    const pid_t pid = fork();
    if (pid == 0) {
        become_subject(kind, daemon, clients, load, pairs);
    }
    // Counting begins before it has any threads.
    const Counters counters = open_counters(pid);
    if (write(pairs.start[1], "", 1) != 1) {
        perror("write");
    }
    close(pairs.start[0]);
    close(pairs.start[1]);
    close(pairs.stream[0]);
    if (kind == SubjectKind::gstreamer) {
        return {kind, load, pid, pairs.stream[1], counters};
    }
    close(pairs.stream[1]);
    return {kind, load, pid, -1, counters};
}

static void kill_subject(Subject &subject, int signal) {
    if (subject.pid > 0) {
        kill(subject.pid, signal);
        waitpid(subject.pid, nullptr, 0);
        subject.pid = 0;
    }
}

void end_subject(Subject &subject) {
    kill_subject(subject, SIGTERM);
}

void stop_subject(Subject &subject) {
    kill_subject(subject, SIGKILL);
    close_counters(subject.counters);
    if (subject.stream >= 0) {
        close(subject.stream);
        subject.stream = -1;
    }
    remove_rings();
}

bool has_ended(const Subject &subject) {
    siginfo_t info{};
    return subject.pid <= 0 ||
           waitid(P_PID, static_cast<id_t>(subject.pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
           info.si_pid != 0;
}

static FILE *open_proc(const Subject &subject, const char *file) {
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/%s", static_cast<int>(subject.pid), file);
    return fopen(path, "re");
}

// Reads the user and system times from /proc/PID/stat, fields 14 and 15, and those of the children,
// fields 16 and 17.
static void read_split(const Subject &subject, CpuTime &time) {
    FILE *file = open_proc(subject, "stat");
    char line[1024];
    if (file == nullptr) {
        return;
    }
    const char *at = fgets(line, sizeof line, file) != nullptr ? strrchr(line, ')') : nullptr;
    fclose(file);
    for (int field = 2; at != nullptr && field < 14; ++field) {
        at = strchr(at + 1, ' ');
    }
    if (at == nullptr) {
        return;
    }
    const double tick_us = 1e6 / static_cast<double>(sysconf(_SC_CLK_TCK));
    char *end = nullptr;
    time.user_us = static_cast<double>(strtoull(at, &end, 10)) * tick_us;
    time.system_us = static_cast<double>(strtoull(end, &end, 10)) * tick_us;
    const unsigned long long user_of_children = strtoull(end, &end, 10);
    const unsigned long long system_of_children = strtoull(end, nullptr, 10);
    time.ended_children_us = static_cast<double>(user_of_children + system_of_children) * tick_us;
}

CpuTime cpu_time(const Subject &subject) {
    CpuTime time{};
    clockid_t clock{};
    timespec used{};
    if (clock_getcpuclockid(subject.pid, &clock) == 0 && clock_gettime(clock, &used) == 0) {
        time.total_us =
            static_cast<double>(used.tv_sec) * 1e6 + static_cast<double>(used.tv_nsec) / 1e3;
    }
    read_split(subject, time);
    return time;
}

static bool is_mapping_line(const char *line) {
    const char *dash = strchr(line, '-');
    const char *blank = strchr(line, ' ');
    return dash != nullptr && blank != nullptr && dash < blank;
}

uint64_t private_bytes_beyond_rings(const Subject &subject) {
    FILE *file = open_proc(subject, "smaps");
    if (file == nullptr) {
        return 0;
    }
    char line[1024];
    uint64_t kilobytes = 0;
    bool is_ring = false;
    while (fgets(line, sizeof line, file) != nullptr) {
        if (is_mapping_line(line)) {
            is_ring = strstr(line, main_ring_name) != nullptr ||
                      strstr(line, baseline_ring_name) != nullptr;
        } else if (!is_ring && strncmp(line, "Private_", strlen("Private_")) == 0 &&
                   strstr(line, "Hugetlb") == nullptr) {
            kilobytes += strtoull(strchr(line, ':') + 1, nullptr, 10);
        }
    }
    fclose(file);
    return kilobytes * 1024;
}
