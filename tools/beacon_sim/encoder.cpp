#include "beacon_sim/encoder.h"

#include "source/audio_format.h"
#include "source/complain.h"
#include "source/spawn.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <initializer_list>
#include <sys/wait.h>
#include <unistd.h>

constexpr const char *font = "/usr/share/fonts/truetype/dejavu/DejaVuSansMono-Bold.ttf";
constexpr int audio_child_fd = 3;

static void append(std::vector<std::string> &list, std::initializer_list<std::string> more) {
    list.insert(list.end(), more);
}

static std::string clock_filter() {
    std::string filter = "drawtext=";
    if (access(font, R_OK) == 0) {
        filter += std::string("fontfile=") + font + ":";
    }
    return filter + "fontsize=h/13:fontcolor=white:box=1:boxcolor=black@0.7:boxborderw=16:"
                    "x=(w-text_w)/2:y=h-h/6:text='%{localtime\\:%T}  frame %{n}'";
}

// The file's picture, centred in the requested size.
static std::string fit_filter(const EncoderOrder &order) {
    const std::string size = std::to_string(order.width) + ":" + std::to_string(order.height);
    return "fps=" + std::to_string(order.rate) + ",scale=" + size +
           ":force_original_aspect_ratio=decrease:force_divisible_by=2,pad=" + size +
           ":(ow-iw)/2:(oh-ih)/2,setsar=1";
}

// The encoder may spend half a second's bits on one frame, as long as it fits into a slot.
static std::string kilobits_in_buffer(const EncoderOrder &order) {
    const unsigned slot_kilobits = order.frame_capacity / 1000 * 8;
    return std::to_string(std::min(order.bitrate / 2, slot_kilobits * 3 / 4)) + "k";
}

static void append_input(std::vector<std::string> &list, const EncoderOrder &order) {
    if (order.file.empty()) {
        append(list, {"-re", "-f", "lavfi", "-i",
                      "testsrc2=size=" + std::to_string(order.width) + "x" +
                          std::to_string(order.height) + ":rate=" + std::to_string(order.rate)});
        return;
    }
    append(list, {"-re", "-i", "file:" + order.file});
}

static void append_video(std::vector<std::string> &list, const EncoderOrder &order) {
    const std::string bitrate = std::to_string(order.bitrate) + "k";
    append(list, {"-map", "0:v:0", "-vf", order.file.empty() ? clock_filter() : fit_filter(order)});
    append(list, {"-pix_fmt", "yuv420p", "-c:v", "libx264", "-preset", "ultrafast", "-tune",
                  "zerolatency", "-threads", "1"});
    append(list, {"-b:v", bitrate, "-maxrate", bitrate, "-bufsize", kilobits_in_buffer(order), "-g",
                  std::to_string(order.rate), "-x264-params", "aud=1:repeat-headers=1"});
    append(list, {"-flush_packets", "1", "-f", "h264", "pipe:1"});
}

std::vector<std::string> encoder_arguments(const EncoderOrder &order) {
    std::vector<std::string> list{"ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error"};
    append_input(list, order);
    if (order.has_video) {
        append_video(list, order);
    }
    if (order.has_audio) {
        append(list, {"-map", "0:a:0", "-f", "s16le", "-ac", "1", "-ar", std::to_string(audio_rate),
                      "-flush_packets", "1", "pipe:" + std::to_string(audio_child_fd)});
    }
    return list;
}

// A pipe's two ends. The child gets one of them, as descriptor child_fd.
struct Pipe {
    int ends[2] = {-1, -1};
    int child_fd = -1;
};

// Starts a program with the pipes as its outputs. Returns its process id, or -1 after a message. In
// any case the pipes' writing ends are closed in this process.
static pid_t start_program(const std::vector<std::string> &arguments, std::vector<Pipe> &pipes) {
    std::vector<ChildDescriptor> descriptors;
    descriptors.reserve(pipes.size());
    for (const Pipe &pipe : pipes) {
        descriptors.emplace_back(pipe.ends[1], pipe.child_fd);
    }
    pid_t pid = -1;
    const int error = spawn_program(pid, arguments, descriptors);
    for (Pipe &pipe : pipes) {
        close(pipe.ends[1]);
    }
    if (error != 0) {
        complain("cannot start %s: %s%s", arguments[0].c_str(), strerror(error),
                 error == ENOENT ? " (Debian has it in the package ffmpeg)" : "");
        return -1;
    }
    return pid;
}

static bool open_pipe(std::vector<Pipe> &pipes, int child_fd) {
    Pipe pipe;
    pipe.child_fd = child_fd;
    if (pipe2(pipe.ends, O_CLOEXEC) != 0) {
        complain("cannot make a pipe: %s", strerror(errno));
        return false;
    }
    pipes.push_back(pipe);
    return true;
}

bool start_encoder(Encoder &encoder, const EncoderOrder &order) {
    std::vector<Pipe> pipes;
    if ((order.has_video && !open_pipe(pipes, STDOUT_FILENO)) ||
        (order.has_audio && !open_pipe(pipes, audio_child_fd))) {
        return false;
    }
    encoder.pid = start_program(encoder_arguments(order), pipes);
    if (encoder.pid < 0) {
        return false;
    }
    for (const Pipe &pipe : pipes) {
        (pipe.child_fd == STDOUT_FILENO ? encoder.video_fd : encoder.audio_fd) = pipe.ends[0];
    }
    return true;
}

void stop_encoder(const Encoder &encoder) {
    if (encoder.pid > 0) {
        kill(encoder.pid, SIGTERM);
    }
}

bool finish_encoder(Encoder &encoder, bool kill_first) {
    if (encoder.pid <= 0) {
        return true;
    }
    if (kill_first) {
        kill(encoder.pid, SIGKILL);
    }
    int status = 0;
    while (waitpid(encoder.pid, &status, 0) < 0 && errno == EINTR) {
    }
    encoder.pid = -1;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Reads a pipe to its end, or up to a size.
static std::string read_all(int fd) {
    constexpr size_t most = 65536;
    std::string text;
    char piece[4096];
    for (ssize_t length = 1; length > 0 && text.size() < most;) {
        length = read(fd, piece, sizeof piece);
        text.append(piece, length > 0 ? static_cast<size_t>(length) : 0);
    }
    close(fd);
    return text;
}

bool probe_file(const std::string &file, FileStreams &streams) {
    const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        complain("cannot read %s: %s", file.c_str(), strerror(errno));
        return false;
    }
    close(fd);
    std::vector<Pipe> pipes;
    if (!open_pipe(pipes, STDOUT_FILENO)) {
        return false;
    }
    Encoder probe;
    probe.pid = start_program({"ffprobe", "-loglevel", "quiet", "-show_entries",
                               "stream=codec_type", "-of", "csv=p=0", "-i", "file:" + file},
                              pipes);
    const std::string text = read_all(pipes[0].ends[0]);
    if (probe.pid < 0) {
        return false;
    }
    if (!finish_encoder(probe, false)) {
        complain("cannot read %s: not a format that ffmpeg knows", file.c_str());
        return false;
    }
    streams.has_video = text.find("video") != std::string::npos;
    streams.has_audio = text.find("audio") != std::string::npos;
    return true;
}
