#include "config/kept_copy.h"

#include <cerrno>
#include <cstdio>
#include <sys/stat.h>
#include <unistd.h>

constexpr off_t size_limit = 1000000; // thirty times the largest file that the daemon writes
constexpr int copy_limit = 9;

// Reads a whole file; returns 0 or an errno.
static int read_all(int file, std::string &content) {
    struct stat status {};
    if (fstat(file, &status) != 0) {
        return errno;
    }
    if (status.st_size > size_limit) {
        return EFBIG;
    }
    content.resize(static_cast<size_t>(status.st_size));
    const ssize_t length = pread(file, content.data(), content.size(), 0);
    if (length < 0) {
        return errno;
    }
    content.resize(static_cast<size_t>(length));
    return 0;
}

static std::string free_name(const std::string &path) {
    std::string name = path + ".kept";
    for (int number = 2; number <= copy_limit && access(name.c_str(), F_OK) == 0; ++number) {
        name = path + ".kept" + std::to_string(number);
    }
    return name;
}

int keep_copy(const FileReplacement &replacement) {
    std::string content;
    int error = replacement.old_file < 0 ? 0 : read_all(replacement.old_file, content);
    if (error != 0 || content.empty()) {
        return error;
    }
    const std::string name = free_name(replacement.path);
    FileReplacement copy;
    error = begin_replacement(copy, name.c_str());
    if (error != 0) {
        return error;
    }
    copy.model = replacement.old_file;
    error = finish_replacement(copy, content);
    if (error == 0) {
        fprintf(stderr, "No settings were loaded at start-up; the previous ones are kept in %s\n",
                name.c_str());
    }
    return error;
}
