#include "machine.h"

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <initializer_list>
#include <sched.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

constexpr int nice_level = -15;

static int subject_core;
static int bench_core;

static std::thread waker;
static std::atomic<bool> waker_ends;

static void use_core(int core) {
    cpu_set_t cores;
    CPU_ZERO(&cores);
    CPU_SET(static_cast<size_t>(core), &cores);
    sched_setaffinity(0, sizeof cores, &cores);
}

bool take_cores() {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    sched_getaffinity(0, sizeof allowed, &allowed);
    if (CPU_COUNT(&allowed) < 2) {
        return false;
    }
    // Use the last two cores.
    for (int core = 0; core < CPU_SETSIZE; ++core) {
        if (CPU_ISSET(static_cast<size_t>(core), &allowed)) {
            bench_core = subject_core;
            subject_core = core;
        }
    }
    use_core(bench_core);
    return true;
}

void use_subject_core() {
    use_core(subject_core);
}

void keep_subject_core_awake() {
    waker_ends = false;
    waker = std::thread([] {
        use_subject_core();
        const sched_param no_priority{};
        sched_setscheduler(0, SCHED_IDLE, &no_priority);
        while (!waker_ends) {
        }
    });
}

void let_subject_core_sleep() {
    waker_ends = true;
    waker.join();
}

void come_first() {
    setpriority(PRIO_PROCESS, 0, nice_level);
    // If the kernel first divides the processor among groups of processes, the group needs the
    // priority too.
    setsid();
    FILE *file = fopen("/proc/self/autogroup", "we");
    if (file != nullptr) {
        fprintf(file, "%d", nice_level);
        fclose(file);
    }
}

struct MachineTime {
    double busy_s;
    double idle_s;
    double own_s;
};

static double seconds(const timeval &time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

static double own_seconds() {
    double sum = 0;
    for (const int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        rusage usage{};
        getrusage(who, &usage);
        sum += seconds(usage.ru_utime) + seconds(usage.ru_stime);
    }
    return sum;
}

// Reads the first line of /proc/stat: user, nice, system, idle, iowait, irq, softirq and steal, in
// ticks.
static MachineTime machine_time() {
    MachineTime time{0, 0, own_seconds()};
    const double tick_s = 1.0 / static_cast<double>(sysconf(_SC_CLK_TCK));
    FILE *file = fopen("/proc/stat", "re");
    if (file == nullptr) {
        return time;
    }
    unsigned long long ticks[8] = {};
    if (fscanf(file, "cpu %llu %llu %llu %llu %llu %llu %llu %llu", // NOLINT(cert-err34-c)
               &ticks[0], &ticks[1], &ticks[2], &ticks[3], &ticks[4], &ticks[5], &ticks[6],
               &ticks[7]) == 8) {
        for (int i = 0; i < 8; ++i) {
            const bool is_idle = i == 3 || i == 4;
            (is_idle ? time.idle_s : time.busy_s) += static_cast<double>(ticks[i]) * tick_s;
        }
    }
    fclose(file);
    return time;
}

static MachineTime first_look;

void start_watching_others() {
    first_look = machine_time();
}

double share_of_others() {
    const MachineTime now = machine_time();
    const double busy_s = now.busy_s - first_look.busy_s;
    const double all_s = busy_s + now.idle_s - first_look.idle_s;
    const double others_s = busy_s - (now.own_s - first_look.own_s);
    return all_s > 0 && others_s > 0 ? others_s / all_s : 0;
}
