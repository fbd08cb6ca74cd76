#include "beacon_media/film.h"

#include "beacon_media/engine.h"
#include "source/clocks.h"
#include "source/complain.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

// The file that is written to the disk every half second, by a thread of its own: a slow disk must
// not keep the program from receiving.
static std::mutex watched_lock;
static int watched_fd = -1;
static unsigned watched_number = 0;           // another for each file
static std::atomic<int> disk_error = 0;       // of that file; an errno
static std::atomic<bool> reaches_disk{false}; // some of it did

// A slow disk may answer when another film is under way already.
static void note_sync(unsigned number, bool has_data, int error) {
    const std::scoped_lock hold(watched_lock);
    if (number != watched_number) {
        return;
    }
    if (error != 0) {
        disk_error = error;
    } else if (has_data) {
        reaches_disk = true;
    }
}

static void keep_on_disk() {
    while (true) {
        usleep(500000);
        int copy = -1;
        unsigned number = 0;
        {
            const std::scoped_lock hold(watched_lock);
            copy = watched_fd < 0 ? -1 : fcntl(watched_fd, F_DUPFD_CLOEXEC, 0);
            number = watched_number;
        }
        if (copy >= 0) {
            struct stat written {};
            const bool has_data = fstat(copy, &written) == 0 && written.st_size > 0;
            const int error = fdatasync(copy) == 0 ? 0 : errno;
            note_sync(number, has_data, error);
            close(copy);
        }
    }
}

static void watch(int fd) {
    static std::once_flag once;
    std::call_once(once, [] { std::thread(keep_on_disk).detach(); });
    const std::scoped_lock hold(watched_lock);
    watched_fd = fd;
    ++watched_number;
    disk_error = 0;
    reaches_disk = false;
}

bool begin_film(Film &film, const std::string &path, bool has_sound, int64_t now,
                std::string &reason) {
    film = {};
    film.fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (film.fd < 0) {
        reason = strerror(errno);
        return false;
    }
    // Unbuffered, or up to 64 kB of whole fragments wait in memory.
    const std::string words = av_words("mp4mux name=mux fragment-duration=500"
                                       " ! filesink name=output buffer-mode=unbuffered",
                                       has_sound);
    film.input.pipeline = start_pipeline({words, "location", path, "output"}, nullptr, -1, reason);
    if (film.input.pipeline == nullptr) {
        close(film.fd);
        film.fd = -1;
        unlink(path.c_str());
        return false;
    }
    film.path = path;
    film.input.has_sound = has_sound;
    film.input.begin = now;
    watch(film.fd);
    return true;
}

bool film_has_failed(Film &film, std::string &reason) {
    if (check_pipeline(*film.input.pipeline, reason) == PipelineState::failed) {
        return true;
    }
    const int error = disk_error;
    reason = error != 0 ? strerror(error) : "";
    return error != 0;
}

bool film_reaches_disk() {
    return reaches_disk;
}

bool film_is_in_place(const Film &film) {
    struct stat named {};
    struct stat open {};
    return stat(film.path.c_str(), &named) == 0 && fstat(film.fd, &open) == 0 &&
           named.st_dev == open.st_dev && named.st_ino == open.st_ino;
}

static std::string fate(const Film &film, bool is_whole, const std::string &reason) {
    if (!film_is_in_place(film)) {
        return ", but it is gone: was the drive removed?";
    }
    return (is_whole ? "" : ", its end could not be written") +
           (reason.empty() ? "" : ": " + reason);
}

void say_film(Film &film) {
    complain("recording %s", film.path.c_str());
    film.is_said = true;
}

static void say_end(const Film &film, const std::string &end) {
    complain("%s: %.1f s, %" PRIu64 " frames, %.1f MB%s", film.path.c_str(),
             static_cast<double>(std::max<int64_t>(film.input.last, 0)) / 1e9, film.input.pictures,
             static_cast<double>(film.input.bytes) / 1e6, end.c_str());
}

void end_film(Film &film) {
    if (!film_is_open(film)) {
        return;
    }
    constexpr int64_t patience = 5 * nanoseconds_per_second;
    end_av_input(film.input);
    std::string reason;
    const bool is_whole = drain_pipeline(*film.input.pipeline, patience, reason);
    stop_pipeline(film.input.pipeline);
    watch(-1);
    const bool is_on_disk = fdatasync(film.fd) == 0;
    const std::string end = fate(film, is_whole && is_on_disk, reason);
    struct stat written {};
    const bool is_empty = fstat(film.fd, &written) == 0 && written.st_size == 0;
    close(film.fd);
    if (film.is_said) {
        say_end(film, end);
    } else if (is_empty) {
        unlink(film.path.c_str());
    }
    film = {};
}
