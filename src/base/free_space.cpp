#include "base/free_space.h"

static_assert(sizeof(fsblkcnt_t) == 8); // on 32-bit boards too, or statvfs fails on large disks

uint32_t megabytes_of(const struct statvfs &status) {
    const double bytes = static_cast<double>(status.f_bsize) * static_cast<double>(status.f_bavail);
    return static_cast<uint32_t>(static_cast<uint64_t>(bytes * 0.000001));
}

uint32_t free_megabytes(const char *path) {
    struct statvfs status {};
    return statvfs(path, &status) == 0 ? megabytes_of(status) : 0;
}
