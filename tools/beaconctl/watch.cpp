#include "beaconctl/commands.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/screen.h"
#include "beaconctl/status_record.h"
#include "beaconctl/text_table.h"

#include <cstdio>
#include <ctime>
#include <unistd.h>

constexpr double silence_limit = 2.0; // records come ten times a second
constexpr double redraw_interval = 0.25;
constexpr int most_clients = 10;

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
    std::optional<StatusRecord> record;
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
    std::vector<std::string> lines = table_lines(status_words(*watch.record));
    lines.insert(lines.begin(),
                 watch.title + (is_silent(watch) ? ": silent for " + std::to_string(silence) + " s"
                                                 : ", " + clock_time()));
    return rewrite_screen(watch.screen, lines);
}

static bool show_line(Watch &watch) {
    const std::string line = is_silent(watch) ? "the daemon is silent" : status_line(*watch.record);
    if (line == watch.last_line) {
        return true;
    }
    watch.last_line = line;
    return print_lines({clock_time() + " " + line});
}

static Received next_record(Link &link, Watch &watch, TimePoint deadline) {
    PacketView packet{};
    Received received = Received::packet;
    while ((received = receive(link, packet, deadline)) == Received::packet) {
        if (const auto record = parse_status(packet.payload); record && is_status(packet)) {
            watch.record = record;
            watch.heard = Clock::now();
            return received;
        }
    }
    return received;
}

// The daemon knows us, but sends nothing.
static int report_no_record(const Link &link, const BoardInfo &info) {
    if (info.client_count >= most_clients) {
        return fail("the daemon has ten clients already, and takes no more");
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

int watch_status(const Target &target, bool is_once) {
    Link link;
    if (!open_link(link, target)) {
        return exit_silent;
    }
    BoardInfo info{};
    if (const Outcome outcome = ask_board(link, info); outcome != Outcome::answered) {
        return report_silence(link, outcome);
    }
    Watch watch;
    watch.title = link.name + (info.name.empty() ? "" : " \"" + printable(info.name, false) + "\"");
    keep_registered(link, Registration::data_only);
    const Received received = next_record(link, watch, after(link.timeout));
    if (!watch.record) {
        return received == Received::stopped ? exit_ok : report_no_record(link, info);
    }
    if (is_once) {
        print_lines({watch.title});
        return print_table(status_words(*watch.record)) ? exit_ok : exit_failed;
    }
    return watch_on(link, watch);
}
