#include "base/sparse_file.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

static int allocate(int fd, size_t offset, size_t size) {
    while (fallocate(fd, FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset),
                     static_cast<off_t>(size)) != 0) {
        if (errno != EINTR) {
            return errno == EOPNOTSUPP ? 0 : errno;
        }
    }
    return 0;
}

// Pages that were allocated and never written look like holes, too.
static bool is_written(int fd, size_t page_offset) {
    const auto at = static_cast<off_t>(page_offset);
    return lseek(fd, at, SEEK_DATA) == at;
}

// Returns the pages of a range that nobody has written. Their neighbours in the same page are
// zeros, too.
static void give_back(int fd, size_t offset, size_t size) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    for (size_t at = offset / page * page; at < offset + size; at += page) {
        if (!is_written(fd, at)) {
            fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(at),
                      static_cast<off_t>(page));
        }
    }
}

int allocate_file_parts(int fd, const FileParts &parts) {
    int error = 0;
    for (size_t i = 0; i < parts.count && error == 0; ++i) {
        error = allocate(fd, i * parts.stride, parts.size);
    }
    // A few of them are of no use here, but may be the memory that others lack.
    for (size_t i = 0; i < parts.count && error != 0; ++i) {
        give_back(fd, i * parts.stride, parts.size);
    }
    return error;
}

bool has_file_room(int fd, size_t offset, size_t size) {
    const off_t hole = lseek(fd, static_cast<off_t>(offset), SEEK_HOLE);
    // Behind the file's end there is nothing to allocate.
    return hole < 0 || hole >= static_cast<off_t>(offset + size) || allocate(fd, offset, size) == 0;
}
