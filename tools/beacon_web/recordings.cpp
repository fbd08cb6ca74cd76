#include "beacon_web/recordings.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <iterator>
#include <strings.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>
#include <utility>

static_assert(sizeof(off_t) == 8, "films are larger than 2 GB");

constexpr size_t longest_path = 1024;
constexpr size_t longest_name = 255;

constexpr StoragePlace places_of_the_board[] = {
    {"internal", "/mnt"},
    {"external", "/media"},
};

namespace {

struct Ending {
    const char *text;
    const char *type;
    bool is_film;
};

// A descriptor that is closed with its scope.
struct Folder {
    int fd = -1;
    explicit Folder(int opened) : fd(opened) {}
    Folder(const Folder &) = delete;
    Folder &operator=(const Folder &) = delete;
    ~Folder() {
        if (fd >= 0) {
            close(fd);
        }
    }
};

} // namespace

constexpr Ending endings[] = {
    {".mp4", "video/mp4", true},        {".mov", "video/quicktime", true},
    {".mkv", "video/x-matroska", true}, {".ts", "video/mp2t", true},
    {".avi", "video/x-msvideo", true},  {".h264", "video/h264", true},
    {".jpg", "image/jpeg", false},      {".jpeg", "image/jpeg", false},
    {".png", "image/png", false},
};

std::span<const StoragePlace> storage_places() {
    return places_of_the_board;
}

const char *place_folder(std::string_view name) {
    for (const StoragePlace &place : places_of_the_board) {
        if (name == place.name) {
            return place.folder;
        }
    }
    return nullptr;
}

static const Ending *ending_of(std::string_view path) {
    const size_t dot = path.rfind('.');
    if (dot == std::string_view::npos) {
        return nullptr;
    }
    const std::string ending(path.substr(dot));
    for (const Ending &each : endings) {
        if (strcasecmp(ending.c_str(), each.text) == 0) {
            return &each;
        }
    }
    return nullptr;
}

const char *recording_type(std::string_view path) {
    const Ending *ending = ending_of(path);
    return ending == nullptr ? nullptr : ending->type;
}

bool is_film(std::string_view path) {
    const Ending *ending = ending_of(path);
    return ending != nullptr && ending->is_film;
}

static std::string preview_of(std::string_view film) {
    return std::string(film.substr(0, film.rfind('.'))) + ".jpg";
}

OpenFile::~OpenFile() {
    if (fd >= 0) {
        close(fd);
    }
}

static int open_folder(int parent, const char *name) {
    return openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
}

static bool is_plain_name(std::string_view name) {
    return !name.empty() && name.size() <= longest_name && name != "." && name != ".." &&
           name.find('\0') == std::string_view::npos;
}

// Opens the folder that a file is in, step by step, and leaves the file's name in `path`. -1, with
// errno set: it is not to be had.
static int open_folder_of(const std::string &place, std::string_view &path) {
    if (path.size() > longest_path || recording_type(path) == nullptr) {
        errno = ENOENT;
        return -1;
    }
    // The place itself is the board's and may be a link.
    int fd = open(place.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (size_t slash = path.find('/'); fd >= 0 && slash != std::string_view::npos;
         slash = path.find('/')) {
        const std::string_view name = path.substr(0, slash);
        const Folder parent(fd);
        errno = ENOENT;
        fd = is_plain_name(name) ? open_folder(parent.fd, std::string(name).c_str()) : -1;
        path.remove_prefix(slash + 1);
    }
    if (fd >= 0 && !is_plain_name(path)) {
        close(std::exchange(fd, -1));
        errno = ENOENT;
    }
    return fd;
}

// Of a file that is in the way, only says that there is none.
static int reason_of(int error) {
    return error == ELOOP || error == ENOTDIR || error == ENAMETOOLONG ? ENOENT : error;
}

// A device or FIFO is not even opened.
static bool is_regular(int folder, const std::string &name) {
    struct stat found {};
    if (fstatat(folder, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
        return false;
    }
    errno = ENOENT;
    return S_ISREG(found.st_mode);
}

std::shared_ptr<OpenFile> open_recording(const std::string &folder, std::string_view path,
                                         int &reason) {
    const Folder parent(open_folder_of(folder, path));
    const std::string name(path);
    auto file = std::make_shared<OpenFile>();
    struct stat found {};
    if (parent.fd < 0 || !is_regular(parent.fd, name)) {
        reason = reason_of(errno);
        return nullptr;
    }
    file->fd = openat(parent.fd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (file->fd < 0 || fstat(file->fd, &found) != 0) {
        reason = reason_of(errno);
        return nullptr;
    }
    if (!S_ISREG(found.st_mode)) {
        reason = ENOENT;
        return nullptr;
    }
    posix_fadvise(file->fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    file->size = static_cast<uint64_t>(found.st_size);
    file->modified = found.st_mtim.tv_sec;
    file->modified_ns = found.st_mtim.tv_nsec;
    return file;
}

int delete_recording(const std::string &folder, std::string_view path) {
    const Folder parent(open_folder_of(folder, path));
    const std::string name(path);
    if (parent.fd < 0 || !is_regular(parent.fd, name) ||
        unlinkat(parent.fd, name.c_str(), 0) != 0) {
        return reason_of(errno);
    }
    if (is_film(name) && is_regular(parent.fd, preview_of(name))) {
        unlinkat(parent.fd, preview_of(name).c_str(), 0);
    }
    return 0;
}

static bool is_utf8(std::string_view text) {
    for (size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i++]);
        const int more = lead < 0x80                   ? 0
                         : lead >= 0xc2 && lead < 0xe0 ? 1
                         : lead >= 0xe0 && lead < 0xf0 ? 2
                         : lead >= 0xf0 && lead < 0xf5 ? 3
                                                       : -1;
        if (more < 0) {
            return false;
        }
        for (int k = 0; k < more; ++k, ++i) {
            if (i >= text.size() || (static_cast<unsigned char>(text[i]) & 0xc0) != 0x80) {
                return false;
            }
        }
    }
    return true;
}

namespace {

struct Walk {
    const char *place = "";
    size_t entries_left = most_entries;
    std::vector<Recording> found;
};

} // namespace

static void walk_folder(Walk &walk, int folder, const std::string &prefix, int depth);

static void take_entry(Walk &walk, int folder, const std::string &prefix, const char *name,
                       int depth) {
    struct stat about {};
    if (!is_plain_name(name) || !is_utf8(name) ||
        fstatat(folder, name, &about, AT_SYMLINK_NOFOLLOW) != 0) {
        return;
    }
    if (S_ISDIR(about.st_mode) && depth < deepest_folder) {
        walk_folder(walk, open_folder(folder, name), prefix + name + "/", depth + 1);
    } else if (S_ISREG(about.st_mode) && recording_type(name) != nullptr) {
        walk.found.push_back({walk.place, prefix + name, static_cast<uint64_t>(about.st_size),
                              about.st_mtim.tv_sec, ""});
    }
}

// Takes over the descriptor.
static void walk_folder(Walk &walk, int folder, const std::string &prefix, int depth) {
    DIR *entries = folder < 0 ? nullptr : fdopendir(folder);
    if (entries == nullptr) {
        if (folder >= 0) {
            close(folder);
        }
        return;
    }
    while (walk.entries_left > 0) {
        const dirent *entry =
            readdir(entries); // NOLINT(concurrency-mt-unsafe): a stream of its own
        if (entry == nullptr) {
            break;
        }
        --walk.entries_left;
        take_entry(walk, dirfd(entries), prefix, entry->d_name, depth);
    }
    closedir(entries);
}

// Gives films their previews, and takes those out of the list.
static void join_previews(std::vector<Recording> &files) {
    std::vector<std::string> pictures;
    for (const Recording &file : files) {
        if (!is_film(file.path)) {
            pictures.push_back(file.path);
        }
    }
    std::sort(pictures.begin(), pictures.end());
    std::vector<std::string> used;
    for (Recording &file : files) {
        const std::string preview = preview_of(file.path);
        if (is_film(file.path) && std::binary_search(pictures.begin(), pictures.end(), preview)) {
            file.preview = preview;
            used.push_back(preview);
        }
    }
    std::sort(used.begin(), used.end());
    std::erase_if(files, [&used](const Recording &file) {
        return std::binary_search(used.begin(), used.end(), file.path);
    });
}

RecordingList list_recordings(std::span<const StoragePlace> places) {
    RecordingList list;
    for (const StoragePlace &place : places) {
        Walk walk;
        walk.place = place.name;
        walk_folder(walk, open(place.folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC), "", 1);
        join_previews(walk.found);
        std::move(walk.found.begin(), walk.found.end(), std::back_inserter(list.files));
        list.is_complete = list.is_complete && walk.entries_left > 0;
    }
    std::sort(list.files.begin(), list.files.end(), [](const Recording &one, const Recording &two) {
        return std::tie(two.modified, one.place, one.path) <
               std::tie(one.modified, two.place, two.path);
    });
    if (list.files.size() > most_recordings) {
        list.files.resize(most_recordings);
        list.is_complete = false;
    }
    return list;
}
