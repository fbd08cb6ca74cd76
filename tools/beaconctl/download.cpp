#include "beaconctl/board.h"
#include "beaconctl/commands.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/fail.h"
#include "beaconctl/screen.h"
#include "beaconctl/stop.h"
#include "beaconctl/text_table.h"
#include "client/file_fetch.h"
#include "client/wait.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sha2.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

constexpr uint32_t overlap = 4096; // bytes of the existing part that are fetched again and compared

struct Download {
    std::string local;
    std::string part; // the file until it is complete
    FileFetch fetch;
    int output = -1;
    bool is_piped = false; // into standard output, instead of a part
    SHA2_CTX sum{};        // SHA-256 of what `part` has
    bool is_begun = false; // the size is known, and `part` is open
    uint32_t began_at = 0;
    TimePoint begun = Clock::now();
    Progress progress;
};

static int fail_about(const std::string &file) {
    return fail(file + ": " + strerror(errno));
}

// If the local name is a folder, the file goes into it under its remote name.
static std::string local_path(const DownloadOptions &options) {
    struct stat status {};
    if (stat(options.local.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        return options.local;
    }
    return options.local + "/" + options.remote.substr(options.remote.rfind('/') + 1);
}

// May the download replace what has this name? A device must not be replaced.
static bool is_replaceable(const std::string &path) {
    struct stat status {};
    return stat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode);
}

// Resumes the part that an earlier attempt has left.
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
    std::string tail(static_cast<size_t>(std::min<off_t>(length, overlap)), '\0');
    const auto kept = static_cast<off_t>(tail.size());
    if (pread(fd, tail.data(), tail.size(), length - kept) != kept) {
        return fail_about(download.part);
    }
    resume_fetch(download.fetch, static_cast<uint32_t>(length), tail);
    return exit_ok;
}

// Adds what an earlier attempt has left to the sum.
static bool add_prefix(Download &download, uint32_t length) {
    std::vector<uint8_t> piece(1 << 20);
    for (uint32_t at = 0; at < length;) {
        const ssize_t got =
            pread(download.output, piece.data(), std::min<size_t>(piece.size(), length - at), at);
        if (got <= 0) {
            return false;
        }
        SHA256Update(&download.sum, piece.data(), static_cast<size_t>(got));
        at += static_cast<uint32_t>(got);
    }
    return true;
}

// The size is known, so the file exists: opens the part.
static int begin_part(Download &download, uint32_t offset) {
    if (download.is_begun) {
        return exit_ok;
    }
    download.is_begun = true;
    SHA256Init(&download.sum);
    download.began_at = offset;
    if (offset > 0 && !add_prefix(download, offset)) {
        return fail_about(download.part);
    }
    if (download.output < 0) {
        download.output =
            open(download.part.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    }
    return download.output < 0 ? fail_about(download.part) : exit_ok;
}

static int write_piece(Download &download, uint32_t offset, std::span<const uint8_t> data) {
    SHA256Update(&download.sum, data.data(), data.size());
    while (!data.empty()) {
        if (download.is_piped && stop_requested()) { // its reader may never read the rest
            clear_progress(download.progress);
            return fail("interrupted");
        }
        const ssize_t written = download.is_piped
                                    ? write(download.output, data.data(), data.size())
                                    : pwrite(download.output, data.data(), data.size(), offset);
        if (written < 0 && errno == EINTR) {
            continue;
        }
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
    const FileTransfer &transfer = download.fetch.transfer;
    if (!progress_due(download.progress) || is_before_data(transfer)) {
        return;
    }
    const double done = transfer.offset;
    const double size = transfer.size;
    const double part = size > 0 ? done / size : 1;
    const double speed = (done - download.began_at) / std::max(seconds_since(download.begun), 0.01);
    char text[200];
    snprintf(text, sizeof text, " %3.0f %%  %s of %s", 100 * part, bytes_text(done).c_str(),
             bytes_text(size).c_str());
    // The bar comes first, so that it does not move when the text grows.
    std::string numbers = text;
    if (speed > 0) {
        snprintf(text, sizeof text, "  %s/s  %.0f s left", bytes_text(speed).c_str(),
                 (size - done) / speed);
        numbers += text;
    }
    const size_t columns = progress_columns();
    const std::string bar = progress_bar(part, std::min<size_t>(columns / 3, 40));
    const bool has_room = text_width(bar + numbers) <= columns;
    show_progress(download.progress, has_room ? bar + numbers : numbers.substr(1));
}

// The daemon does not say why it sends no file; the path may.
static std::string path_hint(const std::string &path) {
    if (!path.starts_with('/')) {
        return "; the path is relative to the daemon's own folder: begin it with /";
    }
    return path.ends_with('/') ? "; this is a folder: name a file in it" : "";
}

// Why the fetch failed.
static std::string failure_text(const Download &download, FetchNews news) {
    const std::string &remote = download.fetch.path;
    switch (news) {
    case FetchNews::missing:
        return remote + ": the board has no such file, it is a folder, or it has 2 GiB or more" +
               path_hint(remote);
    case FetchNews::too_large:
        return remote + " is larger than 2 GB, which is the most that can be fetched";
    case FetchNews::shorter:
        return download.part + " is longer than " + remote +
               ": remove it, or download without --resume";
    case FetchNews::differs:
        return download.part + " is not the beginning of " + remote +
               ": remove it, or download without --resume";
    case FetchNews::cut_short:
        return remote + " is shorter than the board says";
    default:
        return remote + " changes while it is fetched";
    }
}

struct Step {
    int code = exit_ok;
    bool is_over = false;
    bool is_broken_off = false; // by silence or by the user; it can be resumed
};

static Step take_event(Download &download, const FetchEvent &event) {
    int code = exit_ok;
    bool is_unwritable = false;
    switch (event.news) {
    case FetchNews::nothing:
        break;
    case FetchNews::size:
        code = begin_part(download, event.offset);
        break;
    case FetchNews::data:
    case FetchNews::complete:
        code = begin_part(download, event.offset);
        if (code == exit_ok) {
            code = write_piece(download, event.offset, event.data);
            is_unwritable = code != exit_ok; // such as a full disk: it can go on later
        }
        break;
    default:
        code = fail(failure_text(download, event.news));
    }
    return {code, code != exit_ok || event.news == FetchNews::complete, is_unwritable};
}

static Step break_off(const Link &link, Download &download, Outcome outcome) {
    clear_progress(download.progress);
    return {report_silence(link, outcome), true, true};
}

// Asks for a piece if that is due, and takes the next packet.
static Step fetch_on(Link &link, Download &download) {
    FileFetch &fetch = download.fetch;
    switch (step_fetch(fetch, Clock::now())) {
    case FetchStep::ask:
        send_payload(link, fetch_payload(fetch));
        break;
    case FetchStep::wait:
        break;
    case FetchStep::silent:
        return break_off(link, download, Outcome::silent);
    }
    PacketView packet{};
    Step step;
    switch (receive(link, packet, fetch.due)) {
    case Received::packet:
        step = take_event(download, take_packet(fetch, packet, Clock::now()));
        break;
    case Received::timed_out:
        break;
    case Received::refused:
        return break_off(link, download, Outcome::refused);
    case Received::stopped:
    case Received::output_gone:
        return break_off(link, download, Outcome::stopped);
    }
    tell_progress(download);
    return step;
}

static void report_whole(Download &download) {
    char sum[SHA256_DIGEST_STRING_LENGTH];
    SHA256End(&download.sum, sum);
    const double seconds = seconds_since(download.begun);
    const uint32_t now = download.fetch.transfer.size - download.began_at;
    fprintf(stderr, "%s: %u bytes", download.local.c_str(), download.fetch.transfer.size);
    if (download.began_at > 0) {
        fprintf(stderr, ", %u of them now", now);
    }
    fprintf(stderr, ", in %.1f s, %.1f MB/s\nSHA-256 %s\n", seconds,
            1e-6 * now / std::max(seconds, 0.001), sum);
}

// The file is complete: gives it its name.
static int finish(Download &download) {
    if (download.is_piped) {
        report_whole(download);
        return exit_ok;
    }
    struct stat status {};
    if (fstat(download.output, &status) != 0 || close(download.output) != 0) {
        return fail_about(download.part);
    }
    if (status.st_size != static_cast<off_t>(download.fetch.transfer.size)) {
        return fail(download.part + " has " + std::to_string(status.st_size) + " bytes, not " +
                    std::to_string(download.fetch.transfer.size));
    }
    if (rename(download.part.c_str(), download.local.c_str()) != 0) {
        return fail_about(download.local);
    }
    report_whole(download);
    return exit_ok;
}

int download_file(const Target &target, const DownloadOptions &options) {
    if (options.remote.empty() || options.remote.size() > longest_path) {
        fail(options.remote.empty() ? "the file on the board has no name"
                                    : "the file's name is longer than the daemon accepts");
        return exit_usage;
    }
    Download download;
    download.is_piped = options.local == "-";
    if (download.is_piped && (options.resume || is_terminal(STDOUT_FILENO))) {
        fail(options.resume ? "standard output cannot be resumed"
                            : "standard output is a terminal: write to a file or a pipe");
        return exit_usage;
    }
    download.output = download.is_piped ? STDOUT_FILENO : -1;
    download.local = local_path(options);
    if (!download.is_piped && !is_replaceable(download.local)) {
        return fail(download.local + " already exists, and is not a file");
    }
    Link link;
    if (!open_board(link, target)) {
        return exit_silent;
    }
    download.part = download.is_piped ? download.local : download.local + ".part";
    download.fetch = begin_fetch(options.remote, link.wait.timeout, Clock::now());
    link.wait.output = download.is_piped ? STDOUT_FILENO : -1;
    const int code = options.resume ? take_up_part(download) : exit_ok;
    Step step{code, code != exit_ok, false};
    while (!step.is_over) {
        step = fetch_on(link, download);
    }
    clear_progress(download.progress);
    if (step.code == exit_ok) {
        return finish(download);
    }
    if (step.is_broken_off && !download.is_piped && download.output >= 0 &&
        !is_before_data(download.fetch.transfer)) {
        fprintf(stderr, "%s has what was received; --resume continues from there.\n",
                download.part.c_str());
    }
    return step.code;
}
