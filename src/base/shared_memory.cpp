#include "base/shared_memory.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

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
    close(fd);
    if (mapping == MAP_FAILED) {
        return report_failure("mmap", name);
    }
    return static_cast<uint8_t *>(mapping);
}
