#pragma once

// The commands, one function each.
// Stands on: beaconctl/board.

#include "beaconctl/board.h"

#include <cstdint>
#include <string>
#include <vector>

// Each returns the exit code, and says on standard error why it is not exit_ok.

struct WatchOptions {
    bool is_once = false;
    bool as_json = false;
    bool without_streams = false; // spares the link, but then rates and losses are unknown
};
int watch_status(const Target &target, const WatchOptions &options);

// The words are a section or a param, and the names of values; or the keys of settings.
int get_values(const Target &target, const std::vector<std::string> &words, bool as_json);
int get_all(const Target &target, bool as_json);
int list_sections(bool as_json);

struct SetOptions {
    std::vector<std::string> words;
    bool as_json = false;
    bool is_forced = false;  // sends values that are not allowed, too
    bool is_sure = false;    // does not ask
    double revert_after = 0; // seconds after which unconfirmed values are taken back; 0: never
};
int set_values(const Target &target, const SetOptions &options);
int list_params(bool as_json);
// The words NAME=VALUE for a param's settings, for completion: with the names of choices, on and
// off.
int list_words(const std::string &param);
// Sets what a file has otherwise; "-" is standard input.
int restore_settings(const Target &target, const std::string &file, const SetOptions &options);
// The allowed values of a param, or of all if it is empty.
int list_values(const std::string &param, bool as_json);

struct RecordOptions {
    std::string file; // "-": standard output
    std::string type = "video";
    double seconds = 0;     // 0: until it is stopped
    int output = -1;        // if not -1, a descriptor to write to, and `file` is its name
    bool is_strict = false; // losses and gaps are a failure
    bool has_times = false; // of data: each packet with the time at which it came
    bool is_raw = false;    // the stream as it comes, whatever the file's name
    bool is_quiet = false;  // for a player: says only what went wrong here
};
// Writes the stream as it comes. `bytes`, if not null, becomes the number of bytes written.
int record_stream(const Target &target, const RecordOptions &options, uint64_t *bytes = nullptr);
// Can the file be created or overwritten? It is not touched: maybe nothing comes.
int check_writable(const std::string &file);

// Writes the stream in the way that the end of the file's name asks for: x.mp4 becomes a film.
int record_file(const Target &target, const RecordOptions &options);

// Shows the picture with `player`, "ffplay" or "mpv", or with what there is if it is empty.
int view_stream(const Target &target, const std::string &player, const std::string &type);

struct DownloadOptions {
    std::string remote;
    std::string local;
    bool resume = false;
};
int download_file(const Target &target, const DownloadOptions &options);

// Says what the daemon would not read as it was meant in a settings file.
int check_file(const std::string &name);

int discover_boards(const Target &target, bool as_json);
int scan_networks(const Target &target, const std::string &interface, bool as_json);
int show_channels(const Target &target, bool is_once, bool as_json);
int calibrate_receiver(const Target &target, int receiver); // 1 or 2
int turn_gimbal(const Target &target, double pan, double tilt, double roll);
int take_shot(const Target &target);
int send_raw(const Target &target, const std::string &command, double seconds);
int restart_daemon(const Target &target);
int reboot_board(const Target &target, bool is_sure);
