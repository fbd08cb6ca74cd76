#include "beaconctl/board.h"
#include "beaconctl/child_program.h"
#include "beaconctl/commands.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/fail.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

// Players wait for more of a stream than they need, and keep a queue that only grows: these options
// switch that off.
static std::vector<std::string> player_words(const std::string &player) {
    if (player == "mpv") {
        return {player,
                "--profile=low-latency",
                "--untimed",
                "--no-cache",
                "--no-input-terminal",
                "--msg-level=all=error",
                "--demuxer-lavf-format=h264",
                "--title=beaconctl",
                "-"};
    }
    return {
        player,       "-hide_banner", "-loglevel",  "error",         "-fflags",          "nobuffer",
        "-flags",     "low_delay",    "-probesize", "50000",         "-analyzeduration", "0",
        "-framedrop", "-sync",        "ext",        "-window_title", "beaconctl",        "-f",
        "h264",       "-i",           "-"};
}

static std::string found_player(const std::string &wish) {
    for (const char *player : {"ffplay", "mpv"}) {
        if ((wish.empty() || wish == player) && has_program(player)) {
            return player;
        }
    }
    return "";
}

static bool is_set(const char *name) {
    const char *value = getenv(name); // NOLINT(concurrency-mt-unsafe): there is one thread
    return value != nullptr && *value != '\0';
}

static bool has_desktop() {
    return is_set("DISPLAY") || is_set("WAYLAND_DISPLAY");
}

// Without a display SDL, by which the players show the picture, draws into memory for ever. A
// driver by name fails instead. "kmsdrm" is a screen without a desktop.
static void name_driver() {
    const char *driver = is_set("DISPLAY") ? "x11" : has_desktop() ? "wayland" : "kmsdrm";
    setenv("SDL_VIDEODRIVER", driver, 0); // NOLINT(concurrency-mt-unsafe): there is one thread
}

// The player has said itself what was wrong.
static int report_player(const std::string &player, int status) {
    return fail(player + " failed with status " + std::to_string(status) +
                (has_desktop() ? ""
                               : "; there is no desktop here: neither DISPLAY nor WAYLAND_DISPLAY "
                                 "is set"));
}

int view_stream(const Target &target, const std::string &wish, const std::string &type) {
    const std::string player = found_player(wish);
    if (player.empty()) {
        return fail((wish.empty() ? "neither ffplay nor mpv" : "no " + wish) +
                    " is installed here: install ffmpeg or mpv");
    }
    Link link; // looks before a window opens
    BoardInfo info{};
    if (const int code = reach_board(link, target, info); code != exit_ok) {
        return code;
    }
    close_link(link);
    ChildProgram child;
    name_driver();
    if (!start_program(player_words(player), child)) {
        return fail("cannot start " + player + ": " + strerror(errno));
    }
    RecordOptions options;
    options.file = player;
    options.type = type;
    options.output = child.input;
    options.is_quiet = true;
    const int code = record_stream(target, options);
    const int status = end_program(child, SIGTERM);
    return code == exit_ok && status != 0 && status != 128 + SIGTERM && status != 128 + SIGKILL &&
                   status != 123 // of ffplay after SIGTERM
               ? report_player(player, status)
               : code;
}
