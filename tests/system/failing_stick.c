/* Preloaded into a program: a stick with I/O errors. While /tmp/bad-write or /tmp/bad-fdatasync
 * exists, that call fails for films. While /tmp/bad-socket exists, the sockets by which the helpers
 * find each other cannot be made. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

static int fails(int fd, const char *mark) {
    char link[64];
    char path[4096];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t length = readlink(link, path, sizeof path - 1);
    if (length < 0) {
        return 0;
    }
    path[length] = '\0';
    const int is_bad = strstr(path, ".mp4") != NULL && access(mark, F_OK) == 0;
    errno = EIO;
    return is_bad;
}

ssize_t write(int fd, const void *data, size_t size) {
    ssize_t (*next)(int, const void *, size_t) = dlsym(RTLD_NEXT, "write");
    return fails(fd, "/tmp/bad-write") ? -1 : next(fd, data, size);
}

ssize_t writev(int fd, const struct iovec *pieces, int count) {
    ssize_t (*next)(int, const struct iovec *, int) = dlsym(RTLD_NEXT, "writev");
    return fails(fd, "/tmp/bad-write") ? -1 : next(fd, pieces, count);
}

int fdatasync(int fd) {
    int (*next)(int) = dlsym(RTLD_NEXT, "fdatasync");
    return fails(fd, "/tmp/bad-fdatasync") ? -1 : next(fd);
}

static int has_no_socket(int type) {
    const int is_ours = (type & SOCK_SEQPACKET) == SOCK_SEQPACKET;
    const int is_bad = is_ours && access("/tmp/bad-socket", F_OK) == 0;
    errno = EMFILE;
    return is_bad;
}

int socket(int family, int type, int protocol) {
    int (*next)(int, int, int) = dlsym(RTLD_NEXT, "socket");
    return has_no_socket(type) ? -1 : next(family, type, protocol);
}

int socketpair(int family, int type, int protocol, int *ends) {
    int (*next)(int, int, int, int *) = dlsym(RTLD_NEXT, "socketpair");
    return has_no_socket(type) ? -1 : next(family, type, protocol, ends);
}
