#include "base/file_text.h"

#include <cstring>
#include <fcntl.h>
#include <unistd.h>

std::string file_text(const char *path, size_t limit) {
    std::string text(limit, '\0');
    // Non-blocking: the path may be a FIFO, and open() would wait for its writer.
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    const ssize_t length = fd < 0 ? 0 : read(fd, text.data(), limit);
    if (fd >= 0) {
        close(fd);
    }
    return text.substr(0, strnlen(text.data(), length > 0 ? static_cast<size_t>(length) : 0));
}
