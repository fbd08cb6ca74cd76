#include "beaconctl/commands.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/screen.h"
#include "client/status_record.h"
#include "client/stream_start.h"

#include "net/relay_packet.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

constexpr double notice_delay = 3.0; // without a stream before that is said

enum class RecordEnd {
    none,
    asked_for,   // the time is over, or the user has stopped it
    reader_gone, // as "| head" leaves
    write_failed,
};

struct Recording {
    RecordOptions options;
    uint8_t type = relay_type_video;
    int output = -1; // opened with the first bytes: what is there stays when nothing comes
    SequenceCount count;
    uint64_t lost_at_start = 0; // when the last packet was taken that was before the stream
    StreamStart start;
    uint64_t bytes = 0;
    uint64_t packets = 0;
    TimePoint begun = Clock::now();
    std::optional<StatusRecord> status;
    bool is_notice_given = false;
    Progress progress;
    RecordEnd end = RecordEnd::none;
};

static bool is_h264(const Recording &recording) {
    return recording.type != relay_type_audio && recording.type != relay_type_data;
}

static int report_unwritable(const std::string &file) {
    return fail("cannot write " + file + ": " + strerror(errno));
}

// Whether the file can be made or written anew. It stays as it is: nothing may come.
static int check_writable(const std::string &file) {
    struct stat status {};
    if (file == "-") {
        return exit_ok;
    }
    if (stat(file.c_str(), &status) == 0) {
        errno = EISDIR;
        const bool can_write = !S_ISDIR(status.st_mode) && access(file.c_str(), W_OK) == 0;
        return can_write ? exit_ok : report_unwritable(file);
    }
    const size_t slash = file.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : file.substr(0, slash + 1);
    const bool can_make =
        errno == ENOENT && !file.empty() && access(folder.c_str(), W_OK | X_OK) == 0;
    return can_make ? exit_ok : report_unwritable(file);
}

static bool open_output(Recording &recording) {
    if (recording.output >= 0) {
        return true;
    }
    const std::string &file = recording.options.file;
    recording.output = file == "-"
                           ? STDOUT_FILENO
                           : open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (recording.output < 0) {
        recording.end = RecordEnd::write_failed;
        report_unwritable(file);
    }
    return recording.output >= 0;
}

static void note_write_error(Recording &recording) {
    if (errno == EPIPE) {
        recording.end = RecordEnd::reader_gone;
        return;
    }
    clear_progress(recording.progress);
    report_unwritable(recording.options.file);
    recording.end = RecordEnd::write_failed;
}

static void write_bytes(Recording &recording, std::string_view bytes) {
    if (bytes.empty() || !open_output(recording)) {
        return;
    }
    while (!bytes.empty()) {
        const ssize_t written = write(recording.output, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR && !stop_requested()) {
            continue;
        }
        if (written < 0 && errno == EINTR) {
            recording.end = RecordEnd::asked_for; // a reader that does not read cannot hold us
            return;
        }
        if (written < 0) {
            note_write_error(recording);
            return;
        }
        recording.bytes += static_cast<uint64_t>(written);
        bytes.remove_prefix(static_cast<size_t>(written));
    }
    ++recording.packets;
}

// The bytes to write for a packet of the stream.
static std::string stream_bytes(Recording &recording, const PacketView &packet) {
    if (recording.type == relay_type_data) {
        return std::string(payload_text(packet)) + "\n";
    }
    if (!is_h264(recording)) {
        return std::string(payload_text(packet));
    }
    const bool is_after_gap = recording.count.lost != recording.lost_at_start;
    recording.lost_at_start =
        recording.start.found ? recording.lost_at_start : recording.count.lost;
    return take_stream(recording.start, packet.payload, is_after_gap);
}

static void take_packet(Recording &recording, const PacketView &packet) {
    const Arrival arrival = count_packet(recording.count, packet.sequence);
    if (recording.bytes == 0 && !is_h264(recording)) {
        recording.lost_at_start = recording.count.lost;
    }
    if (is_status(packet)) {
        recording.status = parse_status(packet.payload);
        return;
    }
    // What was overtaken would stand in the wrong place.
    if (packet.type != recording.type || is_menu_notice(packet) || arrival != Arrival::in_order) {
        return;
    }
    write_bytes(recording, stream_bytes(recording, packet));
}

static uint64_t lost_packets(const Recording &recording) {
    return recording.count.lost - std::min(recording.lost_at_start, recording.count.lost);
}

static std::string summary(const Recording &recording) {
    char text[200];
    snprintf(text, sizeof text, "%llu bytes of %s in %.1f s, %llu packets, %llu lost",
             static_cast<unsigned long long>(recording.bytes), recording.options.type.c_str(),
             seconds_since(recording.begun), static_cast<unsigned long long>(recording.packets),
             static_cast<unsigned long long>(lost_packets(recording)));
    return text;
}

// Why nothing is being written.
static std::string waiting_for(const Recording &recording) {
    if (is_h264(recording) && !recording.start.held.empty()) {
        return "waiting for a keyframe with its parameter set";
    }
    if (recording.type == relay_type_video && recording.status && !recording.status->video) {
        return "no video: the camera's program sends none";
    }
    if (recording.type == relay_type_internal_camera) {
        return "no camera has come: is internal_camera_enabled set on the board?";
    }
    return "no " + recording.options.type + " has come";
}

static void tell_progress(Recording &recording) {
    const bool is_late = recording.bytes == 0 && seconds_since(recording.begun) > notice_delay;
    if (is_late && !recording.is_notice_given) {
        recording.is_notice_given = true;
        fail(waiting_for(recording));
    }
    if (progress_due(recording.progress)) {
        show_progress(recording.progress,
                      recording.bytes == 0 ? waiting_for(recording) : summary(recording));
    }
}

static void record_on(Link &link, Recording &recording, TimePoint end) {
    constexpr double turn = 0.2;
    PacketView packet{};
    while (recording.end == RecordEnd::none) {
        const Received received = receive(link, packet, std::min(end, after(turn)));
        if (received == Received::packet) {
            take_packet(recording, packet);
        } else if (received == Received::output_gone) {
            recording.end = RecordEnd::reader_gone;
        }
        if (recording.end == RecordEnd::none &&
            (received == Received::stopped || Clock::now() >= end)) {
            recording.end = RecordEnd::asked_for;
        }
        tell_progress(recording);
    }
}

static int finish(const Link &link, Recording &recording) {
    clear_progress(recording.progress);
    if (recording.output > STDOUT_FILENO && close(recording.output) != 0) {
        note_write_error(recording);
    }
    if (recording.bytes == 0 && recording.end != RecordEnd::write_failed) {
        if (recording.count.started) {
            return fail("nothing recorded: " + waiting_for(recording));
        }
        fail("nothing recorded: " + link.name + " sent nothing");
        return exit_silent;
    }
    if (recording.bytes > 0) {
        fprintf(stderr, "%s: %s\n", recording.options.file.c_str(), summary(recording).c_str());
    }
    return recording.end == RecordEnd::write_failed ? exit_failed : exit_ok;
}

static uint8_t relay_type_of(const std::string &type) {
    if (type == "audio") {
        return relay_type_audio;
    }
    if (type == "camera") {
        return relay_type_internal_camera;
    }
    return type == "data" ? relay_type_data : relay_type_video;
}

int record_stream(const Target &target, const RecordOptions &options) {
    if (options.file == "-" && is_terminal(STDOUT_FILENO)) {
        fail("standard output is a terminal: write to a file or a pipe");
        return exit_usage;
    }
    if (const int code = check_writable(options.file); code != exit_ok) {
        return code;
    }
    Link link;
    BoardInfo info{};
    if (const int code = reach_board(link, target, info); code != exit_ok) {
        return code;
    }
    Recording recording;
    recording.options = options;
    recording.type = relay_type_of(options.type);
    recording.begun = Clock::now();
    link.output = options.file == "-" ? STDOUT_FILENO : -1;
    // Everything, for any type: only who gets every packet can tell that one is missing.
    keep_registered(link, Registration::everything);
    record_on(link, recording, options.seconds > 0 ? after(options.seconds) : TimePoint::max());
    if (!recording.count.started && report_full_house(info)) {
        return exit_failed;
    }
    return finish(link, recording);
}
