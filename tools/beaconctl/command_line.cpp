#include "beaconctl/command_line.h"

#include "beaconctl/commands.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/screen.h"
#include "client/setting_rows.h"

#include <CLI/CLI.hpp>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <sstream>

constexpr const char *footer = R"(
Exit status:
  0  done
  1  the board answered, but what was asked for could not be had
  2  the command line is wrong
  3  no answer from the daemon

Examples:
  beaconctl watch                        the board's state, live
  beaconctl get wifi                     the settings of a section
  beaconctl set display hflip 1          mirror the display
  beaconctl set wlan ap_channel=11       change one value of several
  beaconctl record - | ffplay -          look at the video
  beaconctl download /media/a.mp4 .      fetch a recording
The manual page, beaconctl(1), explains all of it.)";

// What the words of a command line give; the commands' callbacks put the exit code here.
struct Words {
    Target target;
    bool is_once = false;
    bool as_json = false;
    bool is_sure = false;
    std::string section;
    std::vector<std::string> setting;
    RecordOptions record;
    DownloadOptions download;
    std::string interface = "int";
    int receiver = 1;
    double pan = 0, tilt = 0, roll = 0;
    std::string command;
    double seconds = 2;
    int exit_code = exit_ok;
};

// A number without inf and nan, which other checks let pass.
static CLI::Validator number_check(double least, double most) {
    const auto check = [least, most](const std::string &word) -> std::string {
        double value = 0;
        const char *end = word.data() + word.size();
        const auto [parsed_to, error] = std::from_chars(word.data(), end, value);
        if (error == std::errc() && parsed_to == end && std::isfinite(value) && value >= least &&
            value <= most) {
            return "";
        }
        char range[80];
        snprintf(range, sizeof range, " is no number from %.7g to %.7g", least, most);
        return "\"" + word + "\"" + range;
    };
    return {check, ""};
}

static CLI::Validator seconds_check() {
    return number_check(0.05, 1e6);
}

static void add_global_options(CLI::App &app, Words &words) {
    app.add_option("--host", words.target.host, "The board's address or name")
        ->capture_default_str();
    app.add_option("--port", words.target.port, "The daemon's UDP port")
        ->capture_default_str()
        ->check(CLI::Range(1, 65535));
    app.add_option_function<double>(
           "--timeout", [&words](double seconds) { words.target.timeout = seconds; },
           "Seconds to wait for an answer [5; 20 for scan]")
        ->check(seconds_check())
        ->type_name("SECONDS");
    app.set_version_flag("--version", "beaconctl " BEACONCTL_VERSION, "Print the version");
    app.set_help_flag("-h,--help", "Print this help");
}

static void add_watch(CLI::App &app, Words &words) {
    auto *command = app.add_subcommand("watch", "Show the board's state, live");
    command->add_flag("--once", words.is_once, "Show it once and end");
    command->add_flag("--json", words.as_json, "Show it once, as JSON");
    command->callback(
        [&] { words.exit_code = watch_status(words.target, words.is_once, words.as_json); });
}

static void add_get(CLI::App &app, Words &words) {
    auto *command = app.add_subcommand("get", "Show a section of the settings, or list them");
    command->add_option("SECTION", words.section, "The section; without it they are listed");
    command->add_flag("--json", words.as_json, "Print JSON");
    command->callback([&] {
        words.exit_code = words.section.empty()
                              ? list_sections(words.as_json)
                              : get_section(words.target, words.section, words.as_json);
    });
}

static std::string set_footer() {
    std::string text = R"(
Examples:
  beaconctl set display hflip 1
  beaconctl set ethernet 1 10.0.0.7 255.255.255.0
  beaconctl set wlan ap_ssid=Beacon ap_psk="good morning"
  beaconctl set internal_camera camera_params="-w 1280 -h 720"

What can be changed:)";
    for (const SettingRow &row : setting_rows()) {
        text += "\n  " + usage_line(row);
    }
    return text;
}

static void add_set(CLI::App &app, Words &words) {
    auto *command = app.add_subcommand("set", "Change settings, or list what can be changed");
    command->add_option("PARAM", words.setting,
                        "The param, its sub-command where it has one, and its values:\n"
                        "all of them in order, or NAME=VALUE for those to change.\n"
                        "Without anything, all params are listed with their values.");
    command->add_flag("--json", words.as_json, "Print the values, or the list, as JSON");
    command->footer(set_footer);
    command->callback([&] {
        words.exit_code = words.setting.empty()
                              ? list_params(words.as_json)
                              : set_values(words.target, words.setting, words.as_json);
    });
}

static void add_record(CLI::App &app, Words &words) {
    auto *command = app.add_subcommand("record", "Write a stream to a file or a pipe");
    command->add_option("FILE", words.record.file, "The file; - is standard output")->required();
    command->add_option("--type", words.record.type, "Which stream")
        ->capture_default_str()
        ->check(CLI::IsMember({"video", "audio", "camera", "data"}));
    command->add_option("--seconds", words.record.seconds, "End after that time [when stopped]")
        ->check(seconds_check())
        ->type_name("SECONDS");
    command->callback([&] { words.exit_code = record_stream(words.target, words.record); });
}

static void add_download(CLI::App &app, Words &words) {
    auto *command = app.add_subcommand("download", "Fetch a file from the board");
    command->add_option("REMOTE", words.download.remote, "The file on the board")->required();
    command->add_option("LOCAL", words.download.local, "The file here, or a folder")->required();
    command->add_flag("--resume", words.download.resume, "Go on with LOCAL.part");
    command->callback([&] { words.exit_code = download_file(words.target, words.download); });
}

static void add_rc(CLI::App &app, Words &words) {
    auto *command = app.add_subcommand("rc", "Show the radio-control channels, live");
    command->add_flag("--once", words.is_once, "Show them once and end");
    command->add_flag("--json", words.as_json, "Print them once, as JSON");
    auto *calibrate = command->add_subcommand("calibrate", "Calibrate a receiver, step by step");
    calibrate->add_option("RECEIVER", words.receiver, "1 or 2")
        ->capture_default_str()
        ->check(CLI::Range(1, 2));
    command->callback([&words, calibrate] {
        words.exit_code = calibrate->parsed()
                              ? calibrate_receiver(words.target, words.receiver)
                              : show_channels(words.target, words.is_once, words.as_json);
    });
}

static void add_scan(CLI::App &app, Words &words) {
    auto *command = app.add_subcommand("scan", "List the Wi-Fi networks in reach");
    command
        ->add_option("INTERFACE", words.interface,
                     "int, ext, or what is set for cam (camera) or lan (network)")
        ->capture_default_str()
        ->check(CLI::IsMember({"int", "ext", "cam", "lan"}));
    command->add_flag("--json", words.as_json, "Print JSON");
    command->callback(
        [&] { words.exit_code = scan_networks(words.target, words.interface, words.as_json); });
}

static void add_gimbal(CLI::App &app, Words &words) {
    auto *command = app.add_subcommand("gimbal", "Turn the gimbal; 0 0 0 stops it");
    for (const auto &[name, value] : {std::pair{"PAN", &words.pan}, std::pair{"TILT", &words.tilt},
                                      std::pair{"ROLL", &words.roll}}) {
        command->add_option(name, *value, "-1 to 1")->required()->check(number_check(-1, 1));
    }
    command->callback(
        [&] { words.exit_code = turn_gimbal(words.target, words.pan, words.tilt, words.roll); });
}

static void add_raw(CLI::App &app, Words &words) {
    auto *command = app.add_subcommand("raw", "Send a JSON command, print what comes back");
    command->add_option("JSON", words.command, "The command; behind a ! it is for the camera")
        ->required();
    command->add_option("--seconds", words.seconds, "How long to wait for answers")
        ->capture_default_str()
        ->check(seconds_check())
        ->type_name("SECONDS");
    command->callback(
        [&] { words.exit_code = send_raw(words.target, words.command, words.seconds); });
}

static void add_simple_commands(CLI::App &app, Words &words) {
    app.add_subcommand("shot", "Take a photo with the board's camera")->callback([&] {
        words.exit_code = take_shot(words.target);
    });
    app.add_subcommand("restart", "Restart the daemon")->callback([&] {
        words.exit_code = restart_daemon(words.target);
    });
    auto *reboot = app.add_subcommand("reboot", "Reboot the board; asks first");
    reboot->add_flag("--yes", words.is_sure, "Do not ask");
    reboot->callback([&] { words.exit_code = reboot_board(words.target, words.is_sure); });
}

// What was wrong with the command line, for people.
static std::string problem_text(const CLI::App *app, const CLI::Error &problem) {
    const std::vector<std::string> rest = app->remaining();
    const bool is_unknown = app->get_subcommands().empty() && !rest.empty() && rest[0][0] != '-';
    return "beaconctl: " + (is_unknown ? "no command \"" + rest[0] + "\"" : problem.what()) +
           "\nRun \"beaconctl --help\", or a command with --help, for more.\n";
}

static bool is_command(const CLI::App &app, const std::string &word) {
    return !app.get_subcommands([&](const CLI::App *each) { return each->get_name() == word; })
                .empty();
}

// The words in reverse order, as the parser takes them. It takes "-.5" for an option, so that
// numbers of the gimbal are given their zero.
static std::vector<std::string> parser_words(const CLI::App &app, int argc, char **argv) {
    std::vector<std::string> words;
    std::string command;
    for (int i = 1; i < argc; ++i) {
        std::string word = argv[i];
        if (command.empty() && is_command(app, word)) {
            command = word;
        }
        const bool is_fraction = word.size() > 2 && word.starts_with("-.") && isdigit(word[2]) != 0;
        if (is_fraction && command == "gimbal") {
            word.insert(1, "0");
        }
        words.insert(words.begin(), word);
    }
    return words;
}

int run_command_line(int argc, char **argv) {
    CLI::App app("Talks to the relay and control daemon of a camera board.", "beaconctl");
    Words words;
    add_global_options(app, words);
    app.failure_message(problem_text);
    app.require_subcommand(1);
    app.fallthrough();
    add_watch(app, words);
    add_get(app, words);
    add_set(app, words);
    add_record(app, words);
    add_download(app, words);
    add_scan(app, words);
    add_rc(app, words);
    add_gimbal(app, words);
    add_simple_commands(app, words);
    add_raw(app, words);
    app.footer(footer); // not before: the commands would have it too
    try {
        app.parse(parser_words(app, argc, argv));
    } catch (const CLI::ParseError &problem) {
        std::ostringstream output; // help and version come here, too
        const bool is_wish = app.exit(problem, output, std::cerr) == 0;
        print_text(output.str());
        return is_wish ? exit_ok : exit_usage;
    }
    return words.exit_code;
}
