#pragma once

#include "client/link.h"

#include <string>
#include <vector>

// The commands, one function each. Each returns the exit code, and says on standard error why it
// is not exit_ok.

int watch_status(const Target &target, bool is_once, bool as_json);

int get_section(const Target &target, const std::string &section, bool as_json);
int list_sections(bool as_json);
int set_values(const Target &target, const std::vector<std::string> &words, bool as_json);
int list_params(bool as_json);

struct RecordOptions {
    std::string file; // "-": standard output
    std::string type = "video";
    double seconds = 0; // 0: until it is stopped
};
int record_stream(const Target &target, const RecordOptions &options);

struct DownloadOptions {
    std::string remote;
    std::string local;
    bool resume = false;
};
int download_file(const Target &target, const DownloadOptions &options);

int scan_networks(const Target &target, const std::string &interface, bool as_json);
int show_channels(const Target &target, bool is_once, bool as_json);
int calibrate_receiver(const Target &target, int receiver); // 1 or 2
int turn_gimbal(const Target &target, double pan, double tilt, double roll);
int take_shot(const Target &target);
int send_raw(const Target &target, const std::string &command, double seconds);
int restart_daemon(const Target &target);
int reboot_board(const Target &target, bool is_sure);
