#include "transfer/piece_reader.h"

#include "transfer/file_piece_layout.h"

#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>

static_assert(sizeof(off_t) == 8); // on 32-bit boards too, or large files cannot be opened

static bool is_regular(const struct stat &status) {
    return S_ISREG(status.st_mode);
}

// Opens the file and stores its status. Returns a negative number when it cannot be opened or is
// not a regular file.
static int open_regular(const char *path, struct stat &status) {
    // Check before opening: opening a device may have side effects.
    if (stat(path, &status) != 0 || !is_regular(status)) {
        return -1;
    }
    // Non-blocking: some files in /proc count as regular, but reading them waits for new data.
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    // Check again: the path may lead elsewhere by now.
    if (fd >= 0 && (fstat(fd, &status) != 0 || !is_regular(status))) {
        close(fd);
        return -1;
    }
    return fd;
}

// Reads until the piece is full, the file ends or a read would block.
static uint16_t fill_piece(int fd, uint8_t *data) {
    size_t used = 0;
    while (used < piece_capacity) {
        const ssize_t length = TEMP_FAILURE_RETRY(read(fd, data + used, piece_capacity - used));
        if (length <= 0) {
            break;
        }
        used += static_cast<size_t>(length);
    }
    return static_cast<uint16_t>(used);
}

static FilePiece read_open_file(int fd, int32_t offset, int64_t full_size, uint8_t *data) {
    if (full_size > std::numeric_limits<int32_t>::max()) {
        return {PieceResult::too_large, 0, full_size};
    }
    if (lseek(fd, offset, SEEK_SET) < 0) {
        return {PieceResult::bad_offset, 0, full_size};
    }
    return {PieceResult::read, fill_piece(fd, data), full_size};
}

FilePiece read_file_piece(const char *path, int32_t offset, int32_t full_size, uint8_t *data) {
    struct stat status {};
    const int fd = open_regular(path, status);
    if (fd < 0) {
        return {PieceResult::missing, 0, 0};
    }
    const FilePiece piece =
        read_open_file(fd, offset, full_size != 0 ? full_size : status.st_size, data);
    close(fd);
    return piece;
}
