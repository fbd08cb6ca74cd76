#include "base/state_file.h"

#include "base/whole_file.h"

#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

constexpr mode_t file_mode = 0666; // the umask takes the rest

static bool is_refused(StateFile &file) {
    const bool is_refused = is_fifo_or_device(file.path);
    if (is_refused && !file.is_refused) {
        fprintf(stderr, "File %s is a FIFO or a device and is not written\n", file.path);
    }
    file.is_refused = is_refused;
    return is_refused;
}

void write_state_file(StateFile &file, std::string_view content) {
    if (is_refused(file)) {
        return;
    }
    // It may have become a FIFO just now.
    const int fd = open(file.path, O_WRONLY | O_CREAT | O_NONBLOCK | O_CLOEXEC, file_mode);
    struct stat status {};
    if (fd >= 0 && fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && ftruncate(fd, 0) == 0) {
        [[maybe_unused]] const ssize_t written = write(fd, content.data(), content.size());
    }
    if (fd >= 0) {
        close(fd);
    }
}
