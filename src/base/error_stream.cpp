#include "base/error_stream.h"

#include "base/line_sink.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

void fill_standard_descriptors() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) < 0) {
            // The lowest free number is this one. Not close-on-exec: commands get it, too.
            [[maybe_unused]] const int opened = open("/dev/null", O_RDWR); // NOLINT
        }
    }
}

// How standard error is written without waiting; set once, before there is a second thread.
static struct {
    ssize_t (*write)(const char *data, size_t size);
    int fd;
} output;

static ssize_t send_some(const char *data, size_t size) {
    return send(output.fd, data, size, MSG_DONTWAIT | MSG_NOSIGNAL);
}

// For what never waits: a file, or a pipe or terminal that was opened once more for this.
static ssize_t write_some(const char *data, size_t size) {
    return write(output.fd, data, size);
}

// For a pipe that could not be opened once more. If it can be written it takes so much at least.
static ssize_t write_polled(const char *data, size_t size) {
    pollfd wanted{output.fd, POLLOUT, 0};
    const bool is_room = poll(&wanted, 1, 0) > 0 && (wanted.revents & POLLOUT) != 0;
    return is_room ? write(output.fd, data, std::min<size_t>(size, PIPE_BUF)) : -1;
}

static void choose_output() {
    output = {write_some, STDERR_FILENO};
    struct stat status {};
    fstat(STDERR_FILENO, &status);
    if (S_ISSOCK(status.st_mode)) {
        output.write = send_some;
    } else if (S_ISFIFO(status.st_mode) || isatty(STDERR_FILENO) != 0) {
        // Its own flags: the ones of descriptor 2 belong to others, too.
        const int fd = open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
        output = fd < 0 ? decltype(output){write_polled, STDERR_FILENO}
                        : decltype(output){write_some, fd};
    }
}

// The stream's lock is held.
static ssize_t put_in_sink(void * /*cookie*/, const char *text, size_t size) {
    static LineSink sink{output.write, "", 0, false, false};
    put_text(sink, text, size);
    return static_cast<ssize_t>(size);
}

void use_patient_error_stream() {
    signal(SIGPIPE, SIG_IGN);
    choose_output();
    cookie_io_functions_t functions{};
    functions.write = put_in_sink;
    FILE *stream = fopencookie(nullptr, "w", functions);
    if (stream != nullptr) {
        setvbuf(stream, nullptr, _IONBF, 0);
        stderr = stream;
    }
}

void write_error_line(const char *line) {
    if (output.write == nullptr) {
        output = {write_some, STDERR_FILENO};
    }
    [[maybe_unused]] const ssize_t written = output.write(line, strlen(line));
}
