#include "source/shared_object.h"

#include "source/complain.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

constexpr const char *folder = "/dev/shm";

// The name without its leading slash, if it has one.
static const char *bare(const char *name) {
    return *name == '/' ? name + 1 : name;
}

static SharedObjectResult fail(const char *name) {
    complain("cannot use %s/%s: %s", folder, bare(name), strerror(errno));
    return SharedObjectResult::failed;
}

bool check_shared_memory() {
    if (access(folder, R_OK | X_OK) != 0) {
        complain("cannot use %s: %s", folder, strerror(errno));
        return false;
    }
    struct stat information {};
    if (stat(folder, &information) != 0 || !S_ISDIR(information.st_mode)) {
        complain("cannot use %s: it is not a directory", folder);
        return false;
    }
    return true;
}

SharedObjectResult map_shared_object(const char *name, size_t size, uint8_t **at, int *kept) {
    const int fd = shm_open(name, O_RDWR, 0600);
    if (fd < 0) {
        return errno == ENOENT ? SharedObjectResult::absent : fail(name);
    }
    struct stat information {};
    if (fstat(fd, &information) != 0 || information.st_size < static_cast<off_t>(size)) {
        close(fd);
        return SharedObjectResult::absent;
    }
    void *mapping = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (mapping == MAP_FAILED) {
        const int error = errno;
        close(fd);
        errno = error;
        return fail(name);
    }
    if (kept != nullptr) {
        *kept = fd;
    } else {
        close(fd);
    }
    *at = static_cast<uint8_t *>(mapping);
    return SharedObjectResult::mapped;
}
