#include "base/shared_memory.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

constexpr int guard_capacity = 16;
constexpr size_t guard_line_size = 160;

// A mapping whose object another program may cut short: an access behind the new end is a SIGBUS.
struct GuardedMapping {
    std::atomic<uint8_t *> address; // null: not in use yet; published last, then kept
    std::atomic<size_t> size;
    std::atomic<int> fd;        // of the object, close-on-exec; its number is kept
    char line[guard_line_size]; // what is said when the object is made whole
};

static GuardedMapping guards[guard_capacity];
static std::atomic<int> guard_count; // may go beyond the capacity: those mappings are not guarded
static struct sigaction action_before;

static uint8_t *report_failure(const char *what, const char *name) {
    fprintf(stderr, "Shared memory %s: %s failed: %s\n", name, what, strerror(errno));
    return nullptr;
}

bool shared_memory_exists(const char *name) {
    const int fd = shm_open(name, O_RDWR, 0600);
    if (fd < 0) {
        return false;
    }
    close(fd);
    return true;
}

static GuardedMapping *guard_of(const uint8_t *at) {
    for (GuardedMapping &guard : guards) {
        const uint8_t *start = guard.address.load(std::memory_order_acquire);
        if (start != nullptr && at >= start && at < start + guard.size) {
            return &guard;
        }
    }
    return nullptr;
}

// Gives the object its size and a page at `at` again. Async-signal-safe.
static bool make_whole(const GuardedMapping &guard, const uint8_t *at) {
    const int fd = guard.fd;
    const auto size = static_cast<off_t>(guard.size.load());
    struct stat status {};
    if (fstat(fd, &status) != 0) {
        return false;
    }
    if (status.st_size < size) {
        if (ftruncate(fd, size) != 0) {
            return false;
        }
        const ssize_t written = write(STDERR_FILENO, guard.line, strlen(guard.line));
        static_cast<void>(written);
    }
    // Without memory for the page the repeated access would fault for ever; asked for here, the
    // page fails once.
    int result = -1;
    do {
        result = fallocate(fd, FALLOC_FL_KEEP_SIZE,
                           at - guard.address.load(std::memory_order_relaxed), 1);
    } while (result != 0 && errno == EINTR);
    return result == 0 || errno == EOPNOTSUPP;
}

static void handle_bus_error(int signal, siginfo_t *info, void * /*unused*/) {
    const int saved_errno = errno;
    const bool is_fault = info->si_code > 0; // else a process has sent it
    const auto *at = static_cast<const uint8_t *>(info->si_addr);
    const GuardedMapping *guard = is_fault ? guard_of(at) : nullptr;
    if (guard == nullptr || !make_whole(*guard, at)) {
        // The repeated access is for whom it was before: the process ends.
        sigaction(SIGBUS, &action_before, nullptr);
        if (!is_fault) {
            raise(signal);
        }
    }
    errno = saved_errno;
}

static void install_guard() {
    struct sigaction action {};
    action.sa_sigaction = handle_bus_error;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigaction(SIGBUS, &action, &action_before);
}

// Takes over the descriptor.
static void guard_mapping(const char *name, uint8_t *address, size_t size, int fd) {
    static pthread_once_t installed = PTHREAD_ONCE_INIT;
    pthread_once(&installed, install_guard);
    GuardedMapping *guard = guard_of(address);
    if (guard != nullptr) {
        // Made anew in place. The number stays: the handler may be using it in another thread.
        dup3(fd, guard->fd, O_CLOEXEC);
        close(fd);
        return;
    }
    const int number = guard_count.fetch_add(1);
    if (number >= guard_capacity) {
        close(fd);
        return;
    }
    guard = &guards[number];
    guard->size = size;
    guard->fd = fd;
    snprintf(guard->line, sizeof guard->line,
             "Shared memory %s was cut short by another program, and is made whole with zeros\n",
             name);
    guard->address.store(address, std::memory_order_release);
}

uint8_t *map_shared_memory(const char *name, size_t size, uint8_t *at) {
    // shm_open sets close-on-exec. A created object is zeros once it has its size.
    int fd = shm_open(name, O_RDWR, 0600);
    if (fd < 0) {
        fd = shm_open(name, O_RDWR | O_CREAT, 0600);
    }
    if (fd < 0) {
        return report_failure("shm_open", name);
    }
    if (ftruncate(fd, static_cast<off_t>(size)) != 0) {
        report_failure("ftruncate", name);
        close(fd);
        return nullptr;
    }
    const int flags = MAP_SHARED | (at != nullptr ? MAP_FIXED : 0);
    void *mapping = mmap(at, size, PROT_READ | PROT_WRITE, flags, fd, 0);
    if (mapping == MAP_FAILED) {
        report_failure("mmap", name);
        close(fd);
        return nullptr;
    }
    guard_mapping(name, static_cast<uint8_t *>(mapping), size, fd);
    return static_cast<uint8_t *>(mapping);
}
