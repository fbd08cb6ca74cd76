#include "beaconctl/command_line.h"

#include "beaconctl/board.h"
#include "beaconctl/commands.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/fail.h"
#include "beaconctl/near_word.h"
#include "beaconctl/screen.h"
#include "beaconctl/setting_words.h"
#include "beaconctl/usual_board.h"

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
  1  the board answered, but the request failed
  2  the command line is wrong
  3  no answer from the daemon

Examples:
  beaconctl discover                     the boards of this network
  beaconctl watch                        the board's state, live
  beaconctl get wifi                     the settings of a section
  beaconctl set display hflip 1          mirror the display
  beaconctl set wlan ap_channel=11       change one value of several
  beaconctl view                         look at the video
  beaconctl download /media/a.mp4 .      fetch a recording
The manual page, beaconctl(1), explains all of it.)";

// What was read from the command line. The commands' callbacks store the exit code here.
struct Words {
    Target target;
    bool is_once = false;
    bool without_streams = false;
    bool as_json = false;
    bool is_sure = false;
    std::vector<std::string> names; // of a section and its values
    bool is_all = false;
    std::string from;
    SetOptions set;
    bool is_listing = false;
    bool is_completing = false;
    RecordOptions record;
    DownloadOptions download;
    std::string interface = "int";
    int receiver = 1;
    double pan = 0, tilt = 0, roll = 0;
    std::string player, view_type = "video";
    std::string file;
    std::string command;
    double seconds = 2;
    int exit_code = exit_ok;
};

// Unlike the library's own check, this one refuses inf and nan.
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
        snprintf(range, sizeof range, " is not a number from %.7g to %.7g", least, most);
        return "\"" + word + "\"" + range;
    };
    return {check, ""};
}

static CLI::Validator seconds_check() {
    return number_check(0.05, 1e6);
}

// "--host NAME:PORT" is taken as BEACONCTL_HOST is; a --port beside it holds, since it is read
// later.
static void take_host(Target &target, const std::string &word) {
    const UsualBoard board = parse_board(word);
    if (!board.error.empty()) {
        throw CLI::ValidationError("--host", board.error);
    }
    target.host = board.host;
    target.port = board.port.value_or(target.port);
}

static void add_global_options(CLI::App &app, Words &words) {
    app.add_option_function<std::string>(
           "--host", [&words](const std::string &word) { take_host(words.target, word); },
           "The board's address or name, and :PORT if need be;\n"
           "without it, BEACONCTL_HOST, the file ~/.config/beaconctl,\n"
           "or this machine")
        ->default_str(words.target.host);
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
    command->add_flag("--once", words.is_once, "Show it once and exit");
    command->add_flag("--json", words.as_json, "Show it as JSON, each second or once");
    command->add_flag("--no-streams", words.without_streams,
                      "Do not get video and sound, which measures them");
    command->callback([&] {
        words.exit_code =
            watch_status(words.target, {words.is_once, words.as_json, words.without_streams});
    });
}

static void add_discover(CLI::App &app, Words &words) {
    auto *command = app.add_subcommand("discover", "List the boards in this machine's networks");
    command->add_flag("--json", words.as_json, "Print JSON");
    command->callback([&] { words.exit_code = discover_boards(words.target, words.as_json); });
}

static void add_view(CLI::App &app, Words &words) {
    auto *command = app.add_subcommand("view", "Show the video, with ffplay or mpv");
    command->add_option("--player", words.player, "Which of them")
        ->check(CLI::IsMember({"ffplay", "mpv"}));
    command->add_option("--type", words.view_type, "Which stream")
        ->capture_default_str()
        ->check(CLI::IsMember({"video", "camera"}));
    command->callback(
        [&] { words.exit_code = view_stream(words.target, words.player, words.view_type); });
}

static void add_check(CLI::App &app, Words &words) {
    auto *command = app.add_subcommand("check", "Check a settings file that was edited");
    command->add_option("FILE", words.file, "The file, such as /boot/quillorbeacon.conf")
        ->required();
    command->callback([&] { words.exit_code = check_file(words.file); });
}

static void add_get(CLI::App &app, Words &words) {
    auto *command = app.add_subcommand("get", "Show a section of the settings, or list them");
    command->add_option("SECTION", words.names,
                        "The section or param, and the names of single values;\n"
                        "without it the sections are listed");
    command->add_flag("--all", words.is_all, "Show all sections");
    command->add_flag("--json", words.as_json, "Print JSON");
    command->callback([&] {
        words.exit_code = words.is_all ? get_all(words.target, words.as_json)
                          : words.names.empty()
                              ? list_sections(words.as_json)
                              : get_values(words.target, words.names, words.as_json);
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
    command->add_option("PARAM", words.set.words,
                        "The param, its sub-command where it has one, and its values:\n"
                        "all of them in order, or NAME=VALUE for those to change.\n"
                        "Without arguments, list all params and their values.");
    command->add_flag("--json", words.set.as_json, "Print the values, or the list, as JSON");
    command->add_flag("--list", words.is_listing, "List allowed values, of PARAM or of all");
    command->add_flag("--words", words.is_completing, "List NAME=VALUE of PARAM, for completion");
    command->add_flag("--force", words.set.is_forced, "Send values that are not allowed, too");
    command->add_option("--from", words.from, "Set what differs in a file that \"get\" has saved")
        ->type_name("FILE");
    command->add_flag("--yes", words.set.is_sure, "Do not ask, though it may cut the link");
    command
        ->add_option("--revert-after", words.set.revert_after,
                     "Take the values back unless they are confirmed in time")
        ->check(seconds_check())
        ->type_name("SECONDS");
    command->footer(set_footer);
    command->callback([&] {
        const std::vector<std::string> &given = words.set.words;
        words.exit_code =
            !words.from.empty()   ? restore_settings(words.target, words.from, words.set)
            : words.is_completing ? list_words(given.empty() ? "" : given[0])
            : words.is_listing    ? list_values(given.empty() ? "" : given[0], words.set.as_json)
            : given.empty()       ? list_params(words.set.as_json)
                                  : set_values(words.target, words.set);
    });
}

static void add_progress(CLI::App &command) {
    command.add_flag_callback("--progress", always_show_progress,
                              "Show it off a terminal too, every 5 s");
}

static void add_record(CLI::App &app, Words &words) {
    auto *command = app.add_subcommand("record", "Write a stream to a file or a pipe");
    command->add_option("FILE", words.record.file, "The file; - is standard output")->required();
    command->add_option("--type", words.record.type, "Which stream")
        ->capture_default_str()
        ->check(CLI::IsMember({"video", "audio", "camera", "data"}));
    command
        ->add_option("--seconds", words.record.seconds,
                     "Stop this long after it began [when interrupted]")
        ->check(seconds_check())
        ->type_name("SECONDS");
    add_progress(*command);
    command->add_flag("--raw", words.record.is_raw, "As it comes, under any name");
    command->add_flag("--strict", words.record.is_strict, "Fail if anything is missing");
    command->add_flag("--timestamps", words.record.has_times, "Data: each packet with its time");
    command->callback([&] { words.exit_code = record_file(words.target, words.record); });
}

static void add_download(CLI::App &app, Words &words) {
    auto *command = app.add_subcommand("download", "Fetch a file from the board");
    command->add_option("REMOTE", words.download.remote, "The file on the board")->required();
    command
        ->add_option("LOCAL", words.download.local,
                     "The file here, or a folder; - is standard output")
        ->required();
    command->add_flag("--resume", words.download.resume, "Continue LOCAL.part");
    add_progress(*command);
    command->callback([&] { words.exit_code = download_file(words.target, words.download); });
}

static void add_rc(CLI::App &app, Words &words) {
    auto *command = app.add_subcommand("rc", "Show the radio-control channels, live");
    command->add_flag("--once", words.is_once, "Show them once and exit");
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
    auto *command = app.add_subcommand("scan", "List the Wi-Fi networks in range");
    command
        ->add_option("INTERFACE", words.interface,
                     "int, ext, cam (the camera's interface) or lan (the network's)")
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
    command
        ->add_option("JSON", words.command,
                     "The command; one that starts with ! is passed on to the camera")
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

static std::vector<std::string> option_names(const CLI::App &app) {
    std::vector<std::string> names;
    for (const CLI::Option *option : app.get_options()) {
        for (const std::string &name : option->get_lnames()) {
            names.push_back("--" + name);
        }
    }
    return names;
}

static std::vector<std::string> command_names(const CLI::App &app) {
    std::vector<std::string> names;
    for (const CLI::App *each : app.get_subcommands([](const CLI::App *) { return true; })) {
        names.push_back(each->get_name());
    }
    return names;
}

// What is wrong with the command line: the first word that means nothing, if there is one.
static std::string wrong_word(const CLI::App &app) {
    std::vector<std::string> options = option_names(app);
    for (const CLI::App *each : app.get_subcommands()) {
        const std::vector<std::string> more = option_names(*each);
        options.insert(options.end(), more.begin(), more.end());
    }
    for (const std::string &word : app.remaining(true)) {
        if (word.starts_with("-") && word.size() > 1) {
            return "there is no option \"" + word + "\"" +
                   near_hint(word.substr(0, word.find('=')), options);
        }
        if (app.get_subcommands().empty()) {
            return "no command \"" + word + "\"" + near_hint(word, command_names(app));
        }
    }
    return "";
}

static std::string problem_text(const CLI::App *app, const CLI::Error &problem) {
    const std::string wrong = wrong_word(*app);
    return "beaconctl: " + (wrong.empty() ? problem.what() : wrong) +
           "\nRun \"beaconctl --help\", or a command with --help, for more.\n";
}

static bool is_command(const CLI::App &app, const std::string &word) {
    return !app.get_subcommands([&](const CLI::App *each) { return each->get_name() == word; })
                .empty();
}

// The words in reverse order, as the parser wants them. It would take "-.5" for an option, so the
// numbers of "gimbal" get a leading zero.
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

// Without a word, beaconctl shows its commands, as an error: nothing was done.
static int show_commands(const CLI::App &app) {
    std::string text = "beaconctl: which command? There are:\n";
    for (const CLI::App *each : app.get_subcommands([](const CLI::App *) { return true; })) {
        std::string name = each->get_name();
        name.resize(10, ' ');
        text += "  " + name + each->get_description() + "\n";
    }
    fputs((text + "Run \"beaconctl --help\" for more.\n").c_str(), stderr);
    return exit_usage;
}

// The board to talk to if the command line names none.
static void use_usual_board(CLI::App &app, Target &target) {
    const UsualBoard board = usual_board();
    if (board.error.empty()) {
        target.host = board.host.empty() ? target.host : board.host;
        target.port = board.port.value_or(target.port);
        return;
    }
    app.parse_complete_callback([&app, error = board.error] { // before the command's own
        const bool is_needed = app.count("--host") == 0 && !app.got_subcommand("check") &&
                               !app.got_subcommand("discover");
        if (is_needed) {
            fail(error);
            throw CLI::RuntimeError(exit_usage);
        }
    });
}

int run_command_line(int argc, char **argv) {
    CLI::App app("Talks to the relay and control daemon of a camera board.", "beaconctl");
    Words words;
    use_usual_board(app, words.target);
    add_global_options(app, words);
    app.failure_message(problem_text);
    app.require_subcommand(1);
    app.fallthrough();
    add_discover(app, words);
    add_watch(app, words);
    add_view(app, words);
    add_get(app, words);
    add_set(app, words);
    add_check(app, words);
    add_record(app, words);
    add_download(app, words);
    add_scan(app, words);
    add_rc(app, words);
    add_gimbal(app, words);
    add_simple_commands(app, words);
    add_raw(app, words);
    app.footer(footer); // last, or the subcommands would inherit it
    if (argc < 2) {
        return show_commands(app);
    }
    try {
        app.parse(parser_words(app, argc, argv));
    } catch (const CLI::ParseError &problem) {
        std::ostringstream output; // --help and --version end up here, too
        const bool is_wish = app.exit(problem, output, std::cerr) == 0;
        print_text(output.str());
        return is_wish ? exit_ok : exit_usage;
    }
    return words.exit_code;
}
