// Measures what running a command costs, and how much of that the daemon itself pays. Compares the
// ways to start one, alternating within one run, from a process with some threads and as much
// mapped shared memory as the daemon.
//
//   command_bench [ROUNDS]
//
// Runs programs and changes nothing; does not need root.

#include "base/shell.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <pthread.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

constexpr size_t mapped_bytes = 73 << 20; // both frame rings
constexpr int waiting_threads = 15;
constexpr int commands_a_round = 100;
constexpr int default_rounds = 11;
constexpr const char *nothing = ":";
// The daemon's mount command, for a disk and a folder that do not exist.
constexpr const char *mount_command =
    "mount /dev/none/sda0 /dev/none/media -o noatime > /dev/null 2>&1";

static void wait_for(pid_t pid) {
    waitpid(pid, nullptr, 0);
}

static void spawn(const char *const *arguments) {
    pid_t pid = 0;
    if (posix_spawn(&pid, arguments[0], nullptr, nullptr, const_cast<char **>(arguments),
                    environ) == 0) {
        wait_for(pid);
    }
}

// The minimum cost of a command in a shell.
static void spawn_shell(const char *command) {
    const char *const arguments[] = {"/bin/sh", "-c", command, nullptr};
    spawn(arguments);
}

static void spawn_true(const char * /*command*/) {
    const char *const arguments[] = {"/bin/true", nullptr};
    spawn(arguments);
}

static void fork_shell(const char *command) {
    const pid_t pid = fork();
    if (pid == 0) {
        execl("/bin/sh", "sh", "-c", command, nullptr);
        _exit(127);
    }
    wait_for(pid);
}

static void call_system(const char *command) {
    [[maybe_unused]] const int ignored = system(command); // NOLINT(cert-env33-c): what is measured
}

static void call_run_shell(const char *command) {
    run_shell(command);
}

struct Way {
    const char *name;
    void (*run)(const char *command);
    const char *command;
};

constexpr std::array<Way, 7> ways = {{
    {"posix_spawn of /bin/sh, waitpid", spawn_shell, nothing},
    {"run_shell", call_run_shell, nothing},
    {"system", call_system, nothing},
    {"fork, exec of /bin/sh, waitpid", fork_shell, nothing},
    {"posix_spawn of /bin/true, waitpid", spawn_true, nothing},
    {"posix_spawn of /bin/sh, waitpid: mount", spawn_shell, mount_command},
    {"run_shell: mount", call_run_shell, mount_command},
}};
constexpr size_t floor_way = 0;

// Microseconds for one command.
struct Cost {
    double wall;
    double own; // processor time of this process
    double all; // of this process and of what it has started
};

static double cpu_us(int who) {
    rusage used{};
    getrusage(who, &used);
    return static_cast<double>(used.ru_utime.tv_sec + used.ru_stime.tv_sec) * 1e6 +
           static_cast<double>(used.ru_utime.tv_usec + used.ru_stime.tv_usec);
}

static double wall_us() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

static Cost measure(const Way &way) {
    const double wall = wall_us();
    const double own = cpu_us(RUSAGE_SELF);
    const double children = cpu_us(RUSAGE_CHILDREN);
    for (int i = 0; i < commands_a_round; ++i) {
        way.run(way.command);
    }
    const double own_used = cpu_us(RUSAGE_SELF) - own;
    const double children_used = cpu_us(RUSAGE_CHILDREN) - children;
    return {(wall_us() - wall) / commands_a_round, own_used / commands_a_round,
            (own_used + children_used) / commands_a_round};
}

static double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

using Rounds = std::vector<std::array<Cost, ways.size()>>;

static double median_of(const Rounds &rounds, size_t way, double Cost::*part) {
    std::vector<double> values;
    values.reserve(rounds.size());
    for (const auto &round : rounds) {
        values.push_back(round[way].*part);
    }
    return median(values);
}

// The ratio is taken within a round.
static double ratio_of(const Rounds &rounds, size_t way, double Cost::*part) {
    std::vector<double> values;
    values.reserve(rounds.size());
    for (const auto &round : rounds) {
        values.push_back(round[way].*part / round[floor_way].*part);
    }
    return median(values);
}

static void print_table(const Rounds &rounds) {
    puts("| a command | takes us | CPU us of the caller | CPU us in all | caller, times the first "
         "row's | in all, times the first row's |");
    puts("|---|--:|--:|--:|--:|--:|");
    for (size_t way = 0; way < ways.size(); ++way) {
        printf("| %s | %.0f | %.0f | %.0f | %.2f | %.2f |\n", ways[way].name,
               median_of(rounds, way, &Cost::wall), median_of(rounds, way, &Cost::own),
               median_of(rounds, way, &Cost::all), ratio_of(rounds, way, &Cost::own),
               ratio_of(rounds, way, &Cost::all));
    }
}

static void *wait_for_ever(void * /*unused*/) {
    for (;;) {
        pause();
    }
}

int main(int count, char **arguments) {
    const int rounds_wanted = count > 1
                                  ? std::max(static_cast<int>(strtol(arguments[1], nullptr, 10)), 1)
                                  : default_rounds;
    void *mapping =
        mmap(nullptr, mapped_bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (mapping == MAP_FAILED) {
        perror("mmap");
        return 1;
    }
    memset(mapping, 1, mapped_bytes);
    for (int i = 0; i < waiting_threads; ++i) {
        pthread_t thread{};
        pthread_create(&thread, nullptr, wait_for_ever, nullptr);
    }
    Rounds rounds(static_cast<size_t>(rounds_wanted));
    for (auto &round : rounds) {
        std::transform(ways.begin(), ways.end(), round.begin(), measure);
    }
    print_table(rounds);
    return 0;
}
