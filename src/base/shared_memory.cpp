#include "base/shared_memory.h"

#include "base/error_stream.h"

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
constexpr size_t guard_name_size = 64;

// A mapping whose object another program may truncate: an access past the new end raises SIGBUS.
// All but the atomics is set before the address and then stays.
struct GuardedMapping {
    std::atomic<uint8_t *> address; // null: not in use yet; stored last and never changed again
    std::atomic<size_t> size;
    std::atomic<int> fd; // of the object, close-on-exec; the number never changes
    std::atomic<uint32_t> restorations;
    std::atomic<bool> is_detached; // private zeros are in the object's place
    FileParts used;
    char name[guard_name_size];
    char line[guard_line_size];        // printed when the object is restored
    char detach_line[guard_line_size]; // printed when it cannot be
};

static GuardedMapping guards[guard_capacity];
static std::atomic<int> guard_count; // may exceed the capacity: those mappings are not guarded
static struct sigaction action_before;

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

// Restores the object's size and allocates the page at `at`. Async-signal-safe.
static bool restore_object(GuardedMapping &guard, const uint8_t *at) {
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
        guard.restorations.fetch_add(1, std::memory_order_relaxed);
        write_error_line(guard.line);
    }
    // Allocate the page now. Without memory for it, the repeated access would fault forever.
    int result = -1;
    do {
        result = fallocate(fd, FALLOC_FL_KEEP_SIZE,
                           at - guard.address.load(std::memory_order_relaxed), 1);
    } while (result != 0 && errno == EINTR);
    return result == 0 || errno == EOPNOTSUPP;
}

// Puts private zeros in the place of the whole mapping. Async-signal-safe.
static bool detach(GuardedMapping &guard) {
    constexpr int flags = MAP_FIXED | MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;
    if (mmap(guard.address.load(), guard.size, PROT_READ | PROT_WRITE, flags, -1, 0) ==
        MAP_FAILED) {
        return false;
    }
    guard.is_detached = true;
    write_error_line(guard.detach_line);
    return true;
}

static void handle_bus_error(int signal, siginfo_t *info, void * /*unused*/) {
    const int saved_errno = errno;
    const bool is_fault = info->si_code > 0; // otherwise a process sent the signal
    const auto *at = static_cast<const uint8_t *>(info->si_addr);
    GuardedMapping *guard = is_fault ? guard_of(at) : nullptr;
    if (guard == nullptr || (!restore_object(*guard, at) && !detach(*guard))) {
        // Leave the repeated access to the previous action, which ends the process.
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

// Takes ownership of `fd`.
static void guard_mapping(const SharedMemory &object, uint8_t *address, int fd) {
    static pthread_once_t installed = PTHREAD_ONCE_INIT;
    pthread_once(&installed, install_guard);
    GuardedMapping *guard = guard_of(address);
    if (guard != nullptr) {
        // Remapped in place. Keep the number: the handler may be using it in another thread.
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
    guard->size = object.size;
    guard->used = object.used;
    guard->fd = fd;
    snprintf(guard->name, sizeof guard->name, "%s", object.name);
    snprintf(guard->line, sizeof guard->line,
             "Shared memory %s was truncated by another program; restored, filled with zeros\n",
             object.name);
    snprintf(guard->detach_line, sizeof guard->detach_line,
             "Shared memory %s: /dev/shm is too full for a page of it, remove files there\n",
             object.name);
    guard->address.store(address, std::memory_order_release);
}

// Closes `fd` if it is one. Returns a negative number.
static int fail(const SharedMemory &object, MapTry which, const char *what, int fd) {
    const int error = errno;
    if (fd >= 0) {
        close(fd);
    }
    if (which == MapTry::first) {
        fprintf(stderr, "Shared memory %s: %s failed: %s\n", object.name, what, strerror(error));
    }
    return -1;
}

static int fail_without_room(const SharedMemory &object, MapTry which, int fd) {
    close(fd);
    if (which == MapTry::first) {
        fprintf(stderr, "Shared memory %s: /dev/shm is too full for it, remove files there\n",
                object.name);
    }
    return -1;
}

// Opens or creates the object, with its size and the memory of its parts. Returns its descriptor,
// or a negative number.
static int open_object(const SharedMemory &object, MapTry which) {
    // shm_open sets close-on-exec. ftruncate fills a new object with zeros.
    int fd = shm_open(object.name, O_RDWR, 0600);
    if (fd < 0) {
        fd = shm_open(object.name, O_RDWR | O_CREAT, 0600);
    }
    if (fd < 0) {
        return fail(object, which, "shm_open", fd);
    }
    if (ftruncate(fd, static_cast<off_t>(object.size)) != 0) {
        return fail(object, which, "ftruncate", fd);
    }
    errno = allocate_file_parts(fd, object.used);
    if (errno == ENOSPC) {
        return fail_without_room(object, which, fd);
    }
    return errno != 0 ? fail(object, which, "fallocate", fd) : fd;
}

uint8_t *map_shared_memory(const SharedMemory &object, uint8_t *at, MapTry which) {
    const int fd = open_object(object, which);
    if (fd < 0) {
        return nullptr;
    }
    GuardedMapping *guard = guard_of(at);
    // Before the mapping: a handler in another thread may detach the new one at once.
    const bool was_detached = guard != nullptr && guard->is_detached.exchange(false);
    const int flags = MAP_SHARED | (at != nullptr ? MAP_FIXED : 0);
    void *mapping = mmap(at, object.size, PROT_READ | PROT_WRITE, flags, fd, 0);
    if (mapping == MAP_FAILED) {
        fail(object, which, "mmap", fd);
        if (was_detached) {
            guard->is_detached = true;
        }
        return nullptr;
    }
    guard_mapping(object, static_cast<uint8_t *>(mapping), fd);
    if (which == MapTry::again) {
        fprintf(stderr, "Shared memory %s: mapped now\n", object.name);
    }
    return static_cast<uint8_t *>(mapping);
}

void map_detached_memory() {
    for (GuardedMapping &guard : guards) {
        uint8_t *address = guard.address.load(std::memory_order_acquire);
        if (address != nullptr && guard.is_detached &&
            map_shared_memory({guard.name, guard.size, guard.used}, address, MapTry::again) !=
                nullptr) {
            guard.restorations.fetch_add(1, std::memory_order_relaxed);
        }
    }
}

uint32_t shared_memory_restorations(const uint8_t *at) {
    const GuardedMapping *guard = guard_of(at);
    return guard != nullptr ? guard->restorations.load(std::memory_order_relaxed) : 0;
}

bool shared_memory_has_room(const uint8_t *at, size_t size) {
    const GuardedMapping *guard = guard_of(at);
    return guard == nullptr ||
           has_file_room(guard->fd, static_cast<size_t>(at - guard->address.load()), size);
}
