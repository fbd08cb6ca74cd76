#include "thread_watch.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <dirent.h>
#include <fstream>
#include <poll.h>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>

static std::atomic<int> signals_handled;

static void count_signal(int /*signal*/) {
    ++signals_handled;
}

static std::string task_file(int thread, const char *name) {
    return "/proc/self/task/" + std::to_string(thread) + "/" + name;
}

bool wait_for(const std::function<bool()> &condition) {
    timespec start{};
    clock_gettime(CLOCK_MONOTONIC, &start);
    while (!condition()) {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        if (now.tv_sec - start.tv_sec > 20) {
            return false;
        }
        poll(nullptr, 0, 1);
    }
    return true;
}

int thread_named(const char *name) {
    DIR *threads = opendir("/proc/self/task");
    int found = 0;
    while (const dirent *entry = readdir(threads)) { // NOLINT(concurrency-mt-unsafe)
        const int thread = std::atoi(entry->d_name); // NOLINT: digits only
        std::string line;
        std::ifstream file(task_file(thread, "comm"));
        if (std::getline(file, line) && line == name) {
            found = thread;
        }
    }
    closedir(threads);
    return found;
}

bool is_asleep(int thread) {
    std::string line;
    std::ifstream file(task_file(thread, "stat"));
    std::getline(file, line);
    const size_t name_end = line.rfind(')');
    return name_end != std::string::npos && line.compare(name_end, 3, ") S") == 0;
}

bool interrupt(int thread) {
    struct sigaction action {};
    action.sa_handler = count_signal; // and no SA_RESTART
    sigaction(SIGUSR1, &action, nullptr);
    const int before = signals_handled;
    return wait_for([&] { return is_asleep(thread); }) &&
           syscall(SYS_tgkill, getpid(), thread, SIGUSR1) == 0 &&
           wait_for([&] { return signals_handled > before; });
}
