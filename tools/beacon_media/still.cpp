#include "beacon_media/still.h"

#include "beacon_media/engine.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

// Another program may be about to write a picture of the same name.
static bool claim(const std::string &path) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd >= 0) {
        close(fd);
    }
    return fd >= 0;
}

// Not over another picture, where the file system can tell.
static bool move_new(const std::string &from, const std::string &to) {
    return renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0 ||
           (errno == EINVAL && rename(from.c_str(), to.c_str()) == 0);
}

bool write_still(std::span<const uint8_t> picture, const std::string &path, int64_t patience,
                 std::string &reason) {
    const std::string unfinished = path + ".new";
    if (!claim(unfinished)) {
        reason = strerror(errno);
        return false;
    }
    Pipeline *pipeline =
        start_pipeline({"appsrc name=video format=time"
                        " caps=video/x-h264,stream-format=byte-stream,alignment=au"
                        " ! decodebin ! videoconvert ! jpegenc quality=90 ! filesink name=output",
                        "location", unfinished, "output"},
                       nullptr, -1, reason);
    if (pipeline == nullptr) {
        unlink(unfinished.c_str());
        return false;
    }
    push_data(*pipeline, "video", picture, 0);
    end_input(*pipeline, "video");
    const bool is_drained = drain_pipeline(*pipeline, patience, reason);
    stop_pipeline(pipeline);
    if (is_drained && move_new(unfinished, path)) {
        return true;
    }
    if (reason.empty()) {
        reason = is_drained ? strerror(errno) : "it took too long";
    }
    unlink(unfinished.c_str());
    return false;
}
