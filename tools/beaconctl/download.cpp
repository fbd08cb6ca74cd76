#include "beaconctl/commands.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/screen.h"
#include "beaconctl/text_table.h"
#include "client/file_transfer.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

constexpr uint32_t overlap = 4096;   // of what is there already, fetched again and compared
constexpr size_t longest_path = 255; // the daemon cuts a longer one
constexpr int most_restarts = 5;     // of a transfer whose size another client's may have changed

struct Download {
    std::string remote;
    std::string local;
    std::string part;      // what has come of the file, until it is complete
    std::string kept_tail; // the end of what was there already
    FileTransfer transfer;
    PieceClock clock;
    int output = -1;
    int restarts = 0;
    uint32_t began_at = 0;
    TimePoint begun = Clock::now();
    Progress progress;
};

static int fail_about(const std::string &file) {
    return fail(file + ": " + strerror(errno));
}

// A folder stands for the file of the same name in it.
static std::string local_path(const DownloadOptions &options) {
    struct stat status {};
    if (stat(options.local.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        return options.local;
    }
    return options.local + "/" + options.remote.substr(options.remote.rfind('/') + 1);
}

// Could the download take the place of what has that name already? A device must stay one.
static bool is_replaceable(const std::string &path) {
    struct stat status {};
    return stat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode);
}

// Takes up what an earlier attempt has left.
static int take_up_part(Download &download) {
    const int fd = open(download.part.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        return errno == ENOENT ? exit_ok : fail_about(download.part);
    }
    download.output = fd;
    const off_t length = lseek(fd, 0, SEEK_END);
    if (length > static_cast<off_t>(largest_file)) {
        return fail(download.part + " is larger than any file that can be fetched");
    }
    const auto kept = static_cast<uint32_t>(std::min<off_t>(length, overlap));
    download.transfer.start = static_cast<uint32_t>(length) - kept;
    download.kept_tail.resize(kept);
    const ssize_t read = pread(fd, download.kept_tail.data(), kept, download.transfer.start);
    return read == static_cast<ssize_t>(kept) ? exit_ok : fail_about(download.part);
}

static int open_part(Download &download) {
    if (download.output < 0) {
        download.output =
            open(download.part.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    }
    return download.output < 0 ? fail_about(download.part) : exit_ok;
}

// Writes a piece's data where it belongs. The first bytes after taking up a part file must be those
// that are there.
static int write_piece(Download &download, uint32_t offset, std::span<const uint8_t> data) {
    std::string &tail = download.kept_tail;
    if (!tail.empty()) {
        if (data.size() < tail.size() || memcmp(data.data(), tail.data(), tail.size()) != 0) {
            return fail(download.part + " is not the beginning of " + download.remote +
                        ": remove it, or download without --resume");
        }
        tail.clear();
    }
    while (!data.empty()) {
        const ssize_t written = pwrite(download.output, data.data(), data.size(), offset);
        if (written < 0) {
            clear_progress(download.progress);
            return fail_about(download.part);
        }
        offset += static_cast<uint32_t>(written);
        data = data.subspan(static_cast<size_t>(written));
    }
    return exit_ok;
}

static void tell_progress(Download &download) {
    if (!progress_due(download.progress) || is_before_data(download.transfer)) {
        return;
    }
    const double done = download.transfer.offset;
    const double size = download.transfer.size;
    const double part = size > 0 ? done / size : 1;
    const double speed = (done - download.began_at) / std::max(seconds_since(download.begun), 0.01);
    char text[200];
    snprintf(text, sizeof text, " %3.0f %%  %s of %s", 100 * part, bytes_text(done).c_str(),
             bytes_text(size).c_str());
    // The bar has its place at the left, however long the words become.
    const size_t columns = progress_columns();
    std::string line = progress_bar(part, std::min<size_t>(columns / 3, 40)) + text;
    if (speed > 0) {
        snprintf(text, sizeof text, "  %s/s  %.0f s left", bytes_text(speed).c_str(),
                 (size - done) / speed);
        line += text;
    }
    show_progress(download.progress, line);
}

// Another client that fetches the same file can make the daemon forget or keep its size: the probe
// tells which it is now. A file whose size is really another is given up.
static bool begin_again(Download &download) {
    if (is_before_data(download.transfer) || ++download.restarts > most_restarts) {
        return false;
    }
    download.transfer.start = download.transfer.offset;
    download.transfer.offset = reset_offset;
    return true;
}

static int report_changed(const Download &download) {
    return fail(download.restarts == 0 && is_before_data(download.transfer)
                    ? download.part + " is longer than " + download.remote +
                          ": remove it, or download without --resume"
                    : download.remote + " changes while it is fetched");
}

// What the probe told: the size, and with it that there is such a file.
static int begin_pieces(Download &download) {
    download.began_at = download.restarts == 0 ? download.transfer.offset : download.began_at;
    return open_part(download);
}

struct Step {
    int code = exit_ok;
    bool is_over = false;
    bool is_broken_off = false; // by silence or the user: what has come can be gone on from
};

static Step over(int code) {
    return {code, true, false};
}

static Step take_verdict(Download &download, PieceVerdict verdict, uint32_t offset,
                         std::span<const uint8_t> data) {
    switch (verdict) {
    case PieceVerdict::taken:
    case PieceVerdict::complete: {
        int code = exit_ok;
        if (offset < reset_offset) {
            code = write_piece(download, offset, data);
        } else if (offset == probe_offset) {
            code = begin_pieces(download);
        }
        return {code, code != exit_ok || verdict == PieceVerdict::complete, false};
    }
    case PieceVerdict::missing:
        return over(fail(download.remote + ": the board has no such file"));
    case PieceVerdict::too_large:
        return over(
            fail(download.remote + " is larger than 2 GB, which is the most that can be fetched"));
    case PieceVerdict::changed:
        return begin_again(download) ? Step{} : over(report_changed(download));
    case PieceVerdict::ended_early:
        return over(fail(download.remote + " is shorter than the board says"));
    case PieceVerdict::not_expected:
        break;
    }
    return {};
}

// Asks for one piece and takes it. A piece that does not come in time is no failure yet.
static Step fetch_piece(Link &link, Download &download, TimePoint &heard) {
    const uint32_t offset = download.transfer.offset;
    const TimePoint asked = Clock::now();
    Step step;
    const auto take = [&](const PacketView &packet) {
        const auto piece = parse_piece(packet);
        if (!piece) {
            return false;
        }
        const PieceVerdict verdict = take_piece(download.transfer, *piece);
        if (verdict == PieceVerdict::not_expected) {
            return false;
        }
        step = take_verdict(download, verdict, offset, piece->data);
        return true;
    };
    const Outcome outcome = request(link, piece_request(download.remote, offset),
                                    piece_patience(download.clock), 1, take);
    if (outcome == Outcome::answered) {
        note_piece(download.clock, seconds_since(asked));
        heard = Clock::now();
    } else if (outcome != Outcome::silent || seconds_since(heard) > link.timeout) {
        clear_progress(download.progress);
        return {report_silence(link, outcome), true, true};
    } else {
        ++download.clock.misses;
    }
    tell_progress(download);
    return step;
}

// The piece that completes a file was taken: gives it its name.
static int finish(Download &download) {
    struct stat status {};
    if (fstat(download.output, &status) != 0 || close(download.output) != 0) {
        return fail_about(download.part);
    }
    if (status.st_size != static_cast<off_t>(download.transfer.size)) {
        return fail(download.part + " has " + std::to_string(status.st_size) + " bytes, not " +
                    std::to_string(download.transfer.size));
    }
    if (rename(download.part.c_str(), download.local.c_str()) != 0) {
        return fail_about(download.local);
    }
    const double seconds = seconds_since(download.begun);
    fprintf(stderr, "%s: %u bytes", download.local.c_str(), download.transfer.size);
    if (download.began_at > 0) {
        fprintf(stderr, ", %u of them now", download.transfer.size - download.began_at);
    }
    fprintf(stderr, ", in %.1f s\n", seconds);
    return exit_ok;
}

int download_file(const Target &target, const DownloadOptions &options) {
    if (options.remote.empty() || options.remote.size() > longest_path) {
        fail(options.remote.empty() ? "the file on the board has no name"
                                    : "the file's name is longer than the daemon takes");
        return exit_usage;
    }
    Download download;
    download.remote = options.remote;
    download.local = local_path(options);
    if (!is_replaceable(download.local)) {
        return fail(download.local + " is there already, and is no file");
    }
    Link link;
    if (!open_link(link, target)) {
        return exit_silent;
    }
    download.part = download.local + ".part";
    const int code = options.resume ? take_up_part(download) : exit_ok;
    Step step{code, code != exit_ok, false};
    for (TimePoint heard = Clock::now(); !step.is_over;) {
        step = fetch_piece(link, download, heard);
    }
    clear_progress(download.progress);
    if (step.code == exit_ok) {
        return finish(download);
    }
    if (step.is_broken_off && download.output >= 0 && !is_before_data(download.transfer)) {
        fprintf(stderr, "What has come is in %s; --resume goes on from there.\n",
                download.part.c_str());
    }
    return step.code;
}
