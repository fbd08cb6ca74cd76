#include "beacon_web/jpeg_maker.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

constexpr int pipe_size = 1 << 20;      // a key picture should fit at once
constexpr double restart_seconds = 1.0; // from one start to the next
constexpr size_t read_size = 64 << 10;
constexpr int most_reads = 64; // at once

// One thread, no waiting for more: a picture comes out as soon as it can.
static const char *const arguments[] = {"ffmpeg",
                                        "-nostdin",
                                        "-loglevel",
                                        "quiet",
                                        "-threads",
                                        "1",
                                        "-fflags",
                                        "nobuffer",
                                        "-flags",
                                        "low_delay",
                                        "-probesize",
                                        "5000",
                                        "-fpsprobesize",
                                        "0",
                                        "-f",
                                        "mp4",
                                        "-i",
                                        "pipe:0",
                                        "-an",
                                        "-vf",
                                        "fps=10",
                                        "-c:v",
                                        "mjpeg",
                                        "-q:v",
                                        "6",
                                        "-pix_fmt",
                                        "yuvj420p",
                                        "-f",
                                        "mpjpeg",
                                        "-flush_packets",
                                        "1",
                                        "pipe:1",
                                        nullptr};

static void close_one(int &fd) {
    if (fd >= 0) {
        close(std::exchange(fd, -1));
    }
}

// Its ends of the pipes wait, ours do not. Returns 0, or an errno.
static int spawn(JpegMaker &maker, int child_input, int child_output) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, child_input, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, child_output, STDOUT_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t as_usual;
    sigemptyset(&as_usual);
    sigaddset(&as_usual, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &as_usual);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    const int error = posix_spawnp(&maker.process, arguments[0], &actions, &attributes,
                                   const_cast<char *const *>(arguments), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (error != 0) {
        maker.process = -1;
    }
    return error;
}

static int start(JpegMaker &maker) {
    std::array<int, 2> in{-1, -1};
    std::array<int, 2> out{-1, -1};
    int error = 0;
    if (pipe2(in.data(), O_CLOEXEC) != 0 || pipe2(out.data(), O_CLOEXEC) != 0) {
        error = errno;
    } else {
        error = spawn(maker, in[0], out[1]);
    }
    close_one(in[0]);
    close_one(out[1]);
    if (error != 0) {
        close_one(in[1]);
        close_one(out[0]);
        return error;
    }
    maker.input = in[1];
    maker.output = out[0];
    fcntl(maker.input, F_SETFL, O_NONBLOCK);
    fcntl(maker.output, F_SETFL, O_NONBLOCK);
    fcntl(maker.input, F_SETPIPE_SZ, pipe_size);
    epoll_event event{};
    event.events = EPOLLIN;
    epoll_ctl(maker.readable, EPOLL_CTL_ADD, maker.output, &event);
    return 0;
}

std::string want_jpegs(JpegMaker &maker, TimePoint now) {
    maker.wanted = now;
    if (maker.process >= 0 || seconds_between(maker.began, now) < restart_seconds) {
        return "";
    }
    maker.viewing = {};
    maker.unsent.clear();
    maker.parts = {};
    maker.jpeg = nullptr;
    maker.made = now;
    const int error = start(maker);
    maker.began = error == 0 ? now : TimePoint{};
    if (error == ENOENT) {
        return "ffmpeg makes these pictures, and it is not installed";
    }
    return error == 0 ? "" : std::string("ffmpeg does not start: ") + strerrordesc_np(error);
}

static void give_up(JpegMaker &maker) {
    close_one(maker.input);
    close_one(maker.output);
    maker.jpeg = nullptr;
    kill(maker.process, SIGKILL);
}

// False: it does not take any more.
static bool send_rest(JpegMaker &maker) {
    while (!maker.unsent.empty()) {
        const ssize_t count = write(maker.input, maker.unsent.data(), maker.unsent.size());
        if (count <= 0) {
            return false;
        }
        maker.unsent.erase(0, static_cast<size_t>(count));
    }
    return true;
}

static void feed(JpegMaker &maker, const PictureRing &ring) {
    while (send_rest(maker)) {
        const Fragment *picture = next_picture(ring, maker.viewing);
        if (picture == nullptr) {
            return;
        }
        if (maker.viewing.start == nullptr) {
            maker.viewing.start = picture->start;
            maker.unsent = picture->start->header;
        } else if (maker.viewing.start != picture->start) {
            give_up(maker); // the pictures are coded in another way: a new one is started
            return;
        } else {
            maker.unsent = *picture->data;
            pass_picture(maker.viewing, *picture, reinterpret_cast<uint8_t *>(maker.unsent.data()));
        }
    }
}

static bool take(JpegMaker &maker, TimePoint now) {
    std::array<char, read_size> buffer{};
    bool is_new = false;
    for (int i = 0; i < most_reads; ++i) {
        const ssize_t count = read(maker.output, buffer.data(), buffer.size());
        if (count == 0) {
            give_up(maker); // it has ended
            return false;
        }
        if (count < 0) {
            break;
        }
        maker.parts.received.append(buffer.data(), static_cast<size_t>(count));
        while (auto jpeg = next_jpeg(maker.parts)) {
            maker.jpeg = std::make_shared<const std::string>(std::move(*jpeg));
            ++maker.number;
            maker.made = now;
            is_new = true;
        }
    }
    return is_new;
}

// True: it is gone.
static bool is_gone(JpegMaker &maker) {
    if (waitpid(maker.process, nullptr, WNOHANG) != maker.process) {
        return false;
    }
    maker.process = -1;
    return true;
}

bool step_jpegs(JpegMaker &maker, const PictureRing &ring, TimePoint now) {
    if (maker.process < 0 || (maker.input < 0 && !is_gone(maker)) || maker.process < 0) {
        return false;
    }
    const bool is_stuck = seconds_between(maker.made, now) > stuck_seconds;
    if (maker.parts.is_broken || is_stuck ||
        seconds_between(maker.wanted, now) > lingering_seconds) {
        give_up(maker);
        return false;
    }
    feed(maker, ring);
    return maker.output >= 0 && take(maker, now);
}
