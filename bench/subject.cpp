#include "subject.h"

#include "baseline.h"
#include "machine.h"
#include "media/frame_ring_layout.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <initializer_list>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

const char *subject_name(SubjectKind kind) {
    constexpr const char *names[] = {"daemon", "plain", "floor"};
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

[[noreturn]] static void become_daemon(const char *path) {
    const int null = open("/dev/null", O_RDWR);
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        dup2(null, stream);
    }
    close(null);
    execl(path, path, static_cast<char *>(nullptr));
    _exit(EXIT_FAILURE);
}

[[noreturn]] static void become_subject(SubjectKind kind, const char *daemon_path, int clients) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    use_subject_core();
    if (kind == SubjectKind::daemon) {
        become_daemon(daemon_path);
    }
    run_baseline(kind == SubjectKind::plain ? Pacing::plain : Pacing::floor, clients);
}

Subject start_subject(SubjectKind kind, const char *daemon_path, int clients) {
    remove_rings();
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        become_subject(kind, daemon_path, clients);
    }
    return {kind, pid};
}

void stop_subject(Subject &subject) {
    if (subject.pid > 0) {
        kill(subject.pid, SIGKILL);
        waitpid(subject.pid, nullptr, 0);
        subject.pid = 0;
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

// The user and system times of /proc/PID/stat, its fields 14 and 15.
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
    time.system_us = static_cast<double>(strtoull(end, nullptr, 10)) * tick_us;
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
