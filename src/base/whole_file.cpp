#include "base/whole_file.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

constexpr const char *beside_ending = ".new";
constexpr int link_limit = 40; // the kernel's limit

// The part of a path before the file name; empty without a "/".
static std::string folder_of(const std::string &path) {
    return path.substr(0, path.rfind('/') + 1);
}

static std::string beside(const FileReplacement &replacement) {
    return replacement.path + beside_ending;
}

// Resolves the symbolic links of a path, whether or not the file exists. Returns 0 or an errno.
static int follow_links(std::string &path) {
    for (int i = 0; i < link_limit; ++i) {
        char target[PATH_MAX];
        const ssize_t length = readlink(path.c_str(), target, sizeof target);
        if (length < 0) {
            return errno == EINVAL || errno == ENOENT ? 0 : errno; // not a link, or no file
        }
        const std::string link(target, static_cast<size_t>(length));
        path = link.front() == '/' ? link : folder_of(path).append(link);
    }
    return ELOOP;
}

bool is_fifo_or_device(const char *path) {
    struct stat status {};
    return stat(path, &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode);
}

// Creates the new file, after removing what an earlier attempt may have left.
static bool make_new_file(FileReplacement &replacement) {
    unlink(beside(replacement).c_str());
    replacement.new_file =
        open(beside(replacement).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    return replacement.new_file >= 0;
}

int begin_replacement(FileReplacement &replacement, const char *path) {
    replacement = {};
    replacement.path = path;
    const int error = follow_links(replacement.path);
    if (error != 0) {
        return error;
    }
    if (is_fifo_or_device(replacement.path.c_str())) {
        return error_no_regular_file;
    }
    replacement.old_file = open(replacement.path.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK);
    if (replacement.old_file < 0 && errno != ENOENT) {
        return errno;
    }
    replacement.model = replacement.old_file;
    return replacement.old_file >= 0 || make_new_file(replacement) ? 0 : errno;
}

// Errors are ignored: not all file systems have owners and modes.
static void take_over_owner_and_mode(const FileReplacement &replacement) {
    struct stat model {};
    if (replacement.model < 0 || fstat(replacement.model, &model) != 0) {
        return;
    }
    [[maybe_unused]] const int ignored = fchown(replacement.new_file, model.st_uid, model.st_gid) |
                                         fchmod(replacement.new_file, model.st_mode & 07777);
}

static bool write_all(int file, std::string_view content) {
    while (!content.empty()) {
        const ssize_t length = write(file, content.data(), content.size());
        if (length < 0 && errno != EINTR) {
            return false;
        }
        content.remove_prefix(length > 0 ? static_cast<size_t>(length) : 0);
    }
    return true;
}

// Some file systems cannot flush a folder and return EINVAL.
static bool flush_folder(const std::string &folder) {
    const int fd = open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const int error = fsync(fd) == 0 || errno == EINVAL ? 0 : errno;
    close(fd);
    errno = error;
    return error == 0;
}

static bool write_and_rename(FileReplacement &replacement, std::string_view content) {
    if (replacement.new_file < 0 && !make_new_file(replacement)) {
        return false;
    }
    take_over_owner_and_mode(replacement);
    return write_all(replacement.new_file, content) && fsync(replacement.new_file) == 0 &&
           rename(beside(replacement).c_str(), replacement.path.c_str()) == 0;
}

static void close_files(const FileReplacement &replacement) {
    for (const int fd : {replacement.new_file, replacement.old_file}) {
        if (fd >= 0) {
            close(fd);
        }
    }
}

// FAT keeps a file's inode in its folder entry: the new size and location reach the disk with the
// file, not with the folder, and only when the file is flushed again. Until then the old file's
// blocks must not be freed, so the old file stays open.
int finish_replacement(FileReplacement &replacement, std::string_view content) {
    if (!write_and_rename(replacement, content)) {
        const int error = errno;
        give_up_replacement(replacement);
        return error;
    }
    const bool is_flushed =
        fsync(replacement.new_file) == 0 && flush_folder(folder_of(replacement.path));
    const int error = is_flushed ? 0 : errno;
    close_files(replacement);
    return error;
}

void give_up_replacement(FileReplacement &replacement) {
    if (replacement.new_file >= 0) {
        unlink(beside(replacement).c_str());
    }
    close_files(replacement);
}

int replace_file(const char *path, std::string_view content) {
    FileReplacement replacement;
    const int error = begin_replacement(replacement, path);
    return error != 0 ? error : finish_replacement(replacement, content);
}

const char *replacement_error_text(int error) {
    return error == error_no_regular_file ? "not a regular file" : strerror(error);
}
