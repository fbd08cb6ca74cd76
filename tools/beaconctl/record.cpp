#include "beaconctl/board.h"
#include "beaconctl/commands.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/fail.h"
#include "beaconctl/screen.h"
#include "beaconctl/stop.h"
#include "beaconctl/text_table.h"
#include "client/sequence_count.h"
#include "client/status_record.h"
#include "client/stream_start.h"
#include "client/wait.h"

#include "net/relay_packet.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

constexpr double notice_delay = 3.0; // seconds without a stream before a message

enum class RecordEnd {
    none,
    asked_for,   // the time is up, or the user stopped it
    reader_gone, // such as "| head"
    write_failed,
};

struct Recording {
    RecordOptions options;
    uint8_t type = relay_type_video;
    int output = -1; // opened for the first bytes: if none come, an existing file stays as it is
    SequenceCount count;
    StreamGap gap;
    uint64_t lost_at_start = 0; // packets lost before the stream began
    uint32_t first = 0;         // the number of the packet with which it began
    uint64_t left_out = 0;      // packets of the stream that came late
    StreamStart start;
    uint64_t bytes = 0;
    uint64_t packets = 0;
    TimePoint begun = Clock::now(); // of waiting, then of the recording
    TimePoint heard{};              // when the stream's last packet came
    int gaps = 0;                   // times without a stream that should be there
    double longest_gap = 0;
    std::optional<StatusRecord> status;
    bool is_notice_given = false;
    Progress progress;
    RecordEnd end = RecordEnd::none;
};

// "2026-11-22T07:00:00.123Z".
static std::string time_text() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts{};
    gmtime_r(&now.tv_sec, &parts);
    char text[40];
    const size_t length = strftime(text, sizeof text, "%FT%T", &parts);
    snprintf(text + length, sizeof text - length, ".%03ldZ", now.tv_nsec / 1000000);
    return text;
}

static bool is_h264(const Recording &recording) {
    return recording.type != relay_type_audio && recording.type != relay_type_data;
}

static int report_unwritable(const std::string &file) {
    return fail("cannot write " + file + ": " + strerror(errno));
}

int check_writable(const std::string &file) {
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
    recording.output = recording.options.output >= 0 ? recording.options.output
                       : file == "-"
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
    if (recording.bytes == 0) {
        recording.begun = Clock::now();
    }
    while (!bytes.empty()) {
        const ssize_t written = write(recording.output, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR && !stop_requested()) {
            continue;
        }
        if (written < 0 && errno == EINTR) {
            recording.end =
                RecordEnd::asked_for; // a reader that does not read must not keep us here
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
        return (recording.options.has_times ? time_text() + " " : "") +
               std::string(payload_text(packet)) + "\n";
    }
    if (!is_h264(recording)) {
        return std::string(payload_text(packet));
    }
    const bool is_after_gap = passes_gap(recording.gap, recording.count);
    recording.lost_at_start =
        recording.start.found ? recording.lost_at_start : recording.count.lost;
    return take_stream(recording.start, packet.payload, is_after_gap);
}

// Video and sound never pause, so a pause is a gap. The sequence does not show it if the daemon was
// started again.
static void note_gap(Recording &recording) {
    constexpr double longest_pause = 2.0;
    const double pause = seconds_since(recording.heard);
    if (recording.bytes > 0 && recording.type != relay_type_data && pause > longest_pause) {
        ++recording.gaps;
        recording.longest_gap = std::max(recording.longest_gap, pause);
    }
    recording.heard = Clock::now();
}

// A packet that came late was counted as lost, and no longer is.
static void note_late(Recording &recording, uint32_t sequence, bool is_ours) {
    constexpr uint32_t farthest = 64; // a late packet's number is that much too small at most
    const uint32_t before = recording.first - sequence; // modulo 2^32, as the numbers are
    const bool is_before_start = recording.bytes == 0 || (before > 0 && before <= farthest);
    if (is_before_start && recording.lost_at_start > 0) {
        --recording.lost_at_start;
    } else if (!is_before_start && is_ours) {
        ++recording.left_out; // it would end up in the wrong place
    }
}

static void take_packet(Recording &recording, const PacketView &packet) {
    const Arrival arrival = count_packet(recording.count, packet.sequence);
    if (recording.bytes == 0 && !is_h264(recording)) {
        recording.lost_at_start = recording.count.lost;
    }
    const PacketKind kind = packet_kind(packet);
    const bool is_ours = packet.type == recording.type && kind != PacketKind::status &&
                         kind != PacketKind::menu_notice && kind != PacketKind::info;
    if (kind == PacketKind::status) {
        recording.status = parse_status(packet);
    }
    if (arrival == Arrival::late) {
        note_late(recording, packet.sequence, is_ours);
    }
    if (!is_ours || arrival != Arrival::in_order) {
        return;
    }
    note_gap(recording);
    recording.first = recording.bytes == 0 ? packet.sequence : recording.first;
    write_bytes(recording, stream_bytes(recording, packet));
}

static uint64_t lost_packets(const Recording &recording) {
    return recording.left_out + recording.count.lost -
           std::min(recording.lost_at_start, recording.count.lost);
}

static std::string summary(const Recording &recording) {
    char text[200];
    const double seconds = seconds_since(recording.begun);
    snprintf(text, sizeof text, "%llu bytes of %s in %.1f s, %.1f Mbit/s, %llu packets, %llu lost",
             static_cast<unsigned long long>(recording.bytes), recording.options.type.c_str(),
             seconds, 8e-6 * static_cast<double>(recording.bytes) / std::max(seconds, 0.1),
             static_cast<unsigned long long>(recording.packets),
             static_cast<unsigned long long>(lost_packets(recording)));
    std::string line = text;
    if (recording.gaps > 0) {
        snprintf(text, sizeof text, ", %d %s, the longest %.1f s", recording.gaps,
                 recording.gaps == 1 ? "gap" : "gaps", recording.longest_gap);
        line += text;
    }
    return line;
}

// The summary, or the numbers that matter in a narrow terminal.
static std::string progress(const Recording &recording) {
    std::string whole = summary(recording);
    const size_t columns = progress_columns();
    if (columns == 0 || text_width(whole) <= columns) {
        return whole;
    }
    char text[80];
    snprintf(text, sizeof text, "%s, %.0f s, %llu lost",
             bytes_text(static_cast<double>(recording.bytes)).c_str(),
             seconds_since(recording.begun),
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
        return "nothing from the board's own camera: is internal_camera_enabled set?";
    }
    return "no " + recording.options.type + " received";
}

static void tell_progress(Recording &recording) {
    const bool is_late = recording.bytes == 0 && seconds_since(recording.begun) > notice_delay;
    if (is_late && !recording.is_notice_given) {
        recording.is_notice_given = true;
        fail(waiting_for(recording));
    }
    if (progress_due(recording.progress)) {
        const std::string waiting =
            is_late ? waiting_for(recording) : "waiting for " + recording.options.type;
        show_progress(recording.progress, recording.bytes == 0 ? waiting : progress(recording));
    }
}

// The time counts from the first bytes; while there are none, from the start.
static TimePoint end_of(const Recording &recording) {
    return recording.options.seconds > 0 ? recording.begun + from_seconds(recording.options.seconds)
                                         : TimePoint::max();
}

static void record_on(Link &link, Recording &recording) {
    constexpr double turn = 0.2;
    PacketView packet{};
    while (recording.end == RecordEnd::none) {
        const Received received = receive(link, packet, std::min(end_of(recording), after(turn)));
        if (received == Received::packet) {
            take_packet(recording, packet);
        } else if (received == Received::output_gone) {
            recording.end = RecordEnd::reader_gone;
        }
        if (recording.end == RecordEnd::none &&
            (received == Received::stopped || Clock::now() >= end_of(recording))) {
            recording.end = RecordEnd::asked_for;
        }
        tell_progress(recording);
    }
}

static int report_nothing(const Link &link, const Recording &recording) {
    const std::string what = recording.options.is_quiet ? "nothing shown: " : "nothing recorded: ";
    if (recording.count.started) {
        return fail(what + waiting_for(recording));
    }
    fail(what + link.name + " sent nothing");
    return exit_silent;
}

static int finish(const Link &link, Recording &recording) {
    clear_progress(recording.progress);
    note_gap(recording); // the stream may have ended before the recording
    const bool is_ours = recording.output > STDOUT_FILENO && recording.options.output < 0;
    if (is_ours && close(recording.output) != 0) {
        note_write_error(recording);
    }
    if (recording.options.is_quiet && recording.end == RecordEnd::reader_gone) {
        return exit_ok; // the caller knows why
    }
    if (recording.bytes == 0 && recording.end != RecordEnd::write_failed) {
        return report_nothing(link, recording);
    }
    if (recording.bytes > 0 && !recording.options.is_quiet) {
        fprintf(stderr, "%s: %s\n", recording.options.file.c_str(), summary(recording).c_str());
    }
    const bool is_whole = lost_packets(recording) == 0 && recording.gaps == 0;
    if (recording.options.is_strict && !is_whole) {
        return fail("the recording is not whole, and --strict was given");
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

int record_stream(const Target &target, const RecordOptions &options, uint64_t *bytes) {
    if (options.file == "-" && is_terminal(STDOUT_FILENO)) {
        fail("standard output is a terminal: write to a file or a pipe");
        return exit_usage;
    }
    if (const int code = options.output < 0 ? check_writable(options.file) : exit_ok;
        code != exit_ok) {
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
    link.wait.output = options.file == "-" ? STDOUT_FILENO : options.output;
    // Everything, whatever the type: only a client that gets all packets can count losses.
    register_for(link.registration, Streams::everything, Clock::now());
    record_on(link, recording);
    if (bytes != nullptr) {
        *bytes = recording.bytes;
    }
    if (!recording.count.started && report_full_house(info)) {
        return exit_failed;
    }
    return finish(link, recording);
}
