#include "beaconctl/commands.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/screen.h"
#include "beaconctl/text_table.h"
#include "client/status_json.h"
#include "client/status_record.h"

#include <cstdio>
#include <ctime>
#include <unistd.h>

constexpr double silence_limit = 2.0; // records come ten times a second
constexpr double redraw_interval = 0.25;

static std::string clock_time() {
    const time_t now = time(nullptr);
    tm parts{};
    localtime_r(&now, &parts);
    char text[20];
    strftime(text, sizeof text, "%H:%M:%S", &parts);
    return text;
}

// What is known, and what of it was last shown.
struct Watch {
    std::string title;
    StatusRecord record{};
    TimePoint heard{};
    TimePoint redraw_due{};
    Screen screen;
    std::string last_line;
};

static bool is_silent(const Watch &watch) {
    return seconds_since(watch.heard) > silence_limit;
}

static bool show_screen(Watch &watch) {
    if (Clock::now() < watch.redraw_due) {
        return true;
    }
    watch.redraw_due = after(redraw_interval);
    const int silence = static_cast<int>(seconds_since(watch.heard));
    std::vector<std::string> lines = table_lines(status_words(watch.record));
    lines.insert(lines.begin(),
                 watch.title + (is_silent(watch) ? ": silent for " + std::to_string(silence) + " s"
                                                 : ", " + clock_time()));
    return rewrite_screen(watch.screen, lines);
}

static bool show_line(Watch &watch) {
    const std::string line = is_silent(watch) ? "the daemon is silent" : status_line(watch.record);
    if (line == watch.last_line) {
        return true;
    }
    watch.last_line = line;
    return print_lines({clock_time() + " " + line});
}

static Received next_record(Link &link, Watch &watch, TimePoint deadline) {
    const Received received = next_status(link, watch.record, deadline);
    watch.heard = received == Received::packet ? Clock::now() : watch.heard;
    return received;
}

// The daemon knows us, but sends nothing.
static int report_no_record(const Link &link, const BoardInfo &info) {
    if (report_full_house(info)) {
        return exit_failed;
    }
    fail("the daemon at " + link.name + " answers, but sends no status");
    return exit_silent;
}

static int watch_on(Link &link, Watch &watch) {
    const bool is_screen = is_terminal(STDOUT_FILENO);
    link.output = STDOUT_FILENO;
    while (is_screen ? show_screen(watch) : show_line(watch)) {
        const Received received = next_record(link, watch, after(redraw_interval));
        if (received == Received::stopped || received == Received::output_gone) {
            break;
        }
    }
    return exit_ok;
}

static void show_once(const Watch &watch, bool as_json) {
    if (as_json) {
        print_lines({status_json(watch.record)});
    } else {
        print_lines({watch.title});
        print_table(status_words(watch.record));
    }
}

int watch_status(const Target &target, bool is_once, bool as_json) {
    Link link;
    BoardInfo info{};
    if (const int code = reach_board(link, target, info); code != exit_ok) {
        return code;
    }
    Watch watch;
    watch.title = link.name + (info.name.empty() ? "" : " \"" + printable(info.name, false) + "\"");
    keep_registered(link, Registration::data_only);
    const Received received = next_record(link, watch, after(link.timeout));
    if (received != Received::packet) {
        return received == Received::stopped ? exit_ok : report_no_record(link, info);
    }
    if (is_once || as_json) {
        show_once(watch, as_json);
        return exit_ok;
    }
    return watch_on(link, watch);
}
