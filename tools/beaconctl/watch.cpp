#include "beaconctl/board.h"
#include "beaconctl/commands.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/fail.h"
#include "beaconctl/screen.h"
#include "beaconctl/text_table.h"
#include "beaconctl/watch_words.h"
#include "client/file_transfer.h"
#include "client/mount_list.h"
#include "client/status_json.h"
#include "client/status_words.h"
#include "client/stream_meter.h"
#include "client/wait.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <unistd.h>

constexpr double silence_limit = 2.0; // records come ten times a second
constexpr double redraw_interval = 0.25;

enum class TimeForm { clock, date_and_clock, iso };

static std::string time_text(TimeForm form) {
    const time_t now = time(nullptr);
    tm parts{};
    (form == TimeForm::iso ? gmtime_r : localtime_r)(&now, &parts);
    char text[40] = "";
    switch (form) {
    case TimeForm::clock:
        strftime(text, sizeof text, "%H:%M:%S", &parts);
        break;
    case TimeForm::date_and_clock:
        strftime(text, sizeof text, "%F %T", &parts);
        break;
    case TimeForm::iso:
        strftime(text, sizeof text, "%FT%TZ", &parts);
        break;
    }
    return text;
}

// What is known, and what was shown last.
struct Watch {
    std::string title;
    WatchOptions options;
    StatusRecord record{};
    TimePoint heard{};
    StreamMeter meter;
    Drive drive = Drive::unknown;
    StatusRecord asked_about{}; // the record that the list of mounts was fetched for
    TimePoint ask_due{};
    TimePoint redraw_due{};
    Screen screen;
    std::string last_line;
    uint64_t last_lost = 0; // and when it was told
    TimePoint lost_due{};
};

static bool is_silent(const Watch &watch) {
    return seconds_since(watch.heard) > silence_limit;
}

// Nothing while the streams are not received.
static const StreamMeter *meter_of(const Watch &watch) {
    return watch.options.without_streams ? nullptr : &watch.meter;
}

static bool show_screen(Watch &watch) {
    if (Clock::now() < watch.redraw_due) {
        return true;
    }
    watch.redraw_due = after(redraw_interval);
    const int silence = static_cast<int>(seconds_since(watch.heard));
    StatusWords words = status_words(watch.record, watch.drive);
    const StatusWords measured = measured_words(meter_of(watch), watch.meter, Clock::now());
    words.insert(words.end(), measured.begin(), measured.end());
    std::vector<std::string> lines = table_lines(words);
    lines.insert(lines.begin(),
                 watch.title + (is_silent(watch) ? ": silent for " + std::to_string(silence) + " s"
                                                 : ", " + time_text(TimeForm::clock)));
    return rewrite_screen(watch.screen, lines);
}

// A line for each change of the state, and for losses, of which several seconds make one.
static bool show_line(Watch &watch) {
    constexpr double loss_interval = 10.0;
    const std::string line =
        is_silent(watch) ? "the daemon is silent" : status_line(watch.record, watch.drive);
    const bool is_loss_due =
        watch.meter.count.lost > watch.last_lost && Clock::now() >= watch.lost_due;
    if (line == watch.last_line && !(is_loss_due && !watch.options.without_streams)) {
        return true;
    }
    watch.last_line = line;
    watch.last_lost = watch.meter.count.lost;
    watch.lost_due = after(loss_interval);
    return print_lines({time_text(TimeForm::date_and_clock) + " " + line +
                        (is_silent(watch) ? "" : measured_line(meter_of(watch)))});
}

// A record each second, with its time first; without one while the daemon is silent.
static bool show_json(Watch &watch) {
    constexpr double interval = 1.0;
    if (Clock::now() < watch.redraw_due) {
        return true;
    }
    watch.redraw_due = after(interval);
    const std::string when = R"({"time":")" + time_text(TimeForm::iso) + R"(",)";
    const std::string rest = status_json(watch.record).substr(1);
    return print_lines(
        {when + (is_silent(watch)
                     ? R"("silent":true})"
                     : rest.substr(0, rest.size() - 1) + "," +
                           measured_json(meter_of(watch), watch.meter, Clock::now()) + "}")});
}

// Whether there is a drive, again when the place or its free space changes.
static void ask_for_mounts(const Link &link, Watch &watch) {
    constexpr double interval = 5.0;
    const StatusRecord &asked = watch.asked_about;
    const bool is_same =
        asked.storage_place == watch.record.storage_place &&
        std::abs(static_cast<double>(asked.free_megabytes) - watch.record.free_megabytes) < 1000;
    if (Clock::now() < watch.ask_due || (is_same && watch.drive != Drive::unknown)) {
        return;
    }
    watch.ask_due = after(interval);
    if (watch.record.storage_place == 1 || watch.record.storage_place == 2) {
        watch.asked_about = watch.record;
        send_payload(link, piece_request(mount_list_path, 0));
    }
}

static void take_packet(Watch &watch, const PacketView &packet) {
    meter_packet(watch.meter, packet, Clock::now());
    if (const std::optional<StatusRecord> record = parse_status(packet)) {
        watch.drive =
            record->storage_place == watch.record.storage_place ? watch.drive : Drive::unknown;
        watch.record = *record;
        watch.heard = Clock::now();
    } else if (const std::optional<FilePiece> piece = parse_piece(packet);
               piece && piece->offset == 0) {
        watch.drive = drive_of(
            watch.record, {reinterpret_cast<const char *>(piece->data.data()), piece->data.size()});
    }
}

// Takes what comes until the deadline, or until the first status record if that is asked for.
static Received take_packets(Link &link, Watch &watch, TimePoint deadline, bool until_record) {
    const TimePoint heard = watch.heard;
    PacketView packet{};
    Received received = Received::packet;
    while ((received = receive(link, packet, deadline)) == Received::packet) {
        take_packet(watch, packet);
        step_meter(watch.meter, Clock::now());
        if ((until_record && watch.heard != heard) || Clock::now() >= deadline) {
            break;
        }
    }
    step_meter(watch.meter, Clock::now());
    return received;
}

// The daemon answered, but sends no status.
static int report_no_record(const Link &link, const BoardInfo &info) {
    if (report_full_house(info)) {
        return exit_failed;
    }
    fail("the daemon at " + link.name + " answers, but sends no status");
    return exit_silent;
}

static int watch_on(Link &link, Watch &watch) {
    const bool as_json = watch.options.as_json;
    const bool is_screen = is_terminal(STDOUT_FILENO) && !as_json;
    link.wait.output = STDOUT_FILENO;
    KeyInput keys;
    if (is_screen) {
        take_keys(keys);
    }
    while (as_json ? show_json(watch) : is_screen ? show_screen(watch) : show_line(watch)) {
        if (key_pressed(keys) == 'q') {
            break;
        }
        ask_for_mounts(link, watch);
        const Received received = take_packets(link, watch, after(redraw_interval), false);
        if (received == Received::stopped || received == Received::output_gone) {
            break;
        }
    }
    give_keys_back(keys);
    return exit_ok;
}

// The daemon answers at once where it can; an old list of mounts is not worth more time.
static void show_once(Link &link, Watch &watch) {
    constexpr double patience = 0.5;
    ask_for_mounts(link, watch);
    const TimePoint end = after(patience);
    while (watch.drive == Drive::unknown && watch.asked_about.storage_place != 0 &&
           Clock::now() < end &&
           take_packets(link, watch, after(0.05), false) == Received::packet) {
    }
    if (watch.options.as_json) {
        print_lines({status_json(watch.record)});
    } else {
        print_lines({watch.title});
        print_table(status_words(watch.record, watch.drive));
    }
}

int watch_status(const Target &target, const WatchOptions &options) {
    Link link;
    BoardInfo info{};
    if (const int code = reach_board(link, target, info); code != exit_ok) {
        return code;
    }
    Watch watch;
    watch.options = options;
    watch.options.without_streams |= options.is_once;
    watch.title = link.name + (info.name.empty() ? "" : " \"" + printable(info.name, false) + "\"");
    register_for(link.registration,
                 watch.options.without_streams ? Streams::data_only : Streams::everything,
                 Clock::now());
    const Received received = take_packets(link, watch, after(link.wait.timeout), true);
    if (watch.heard == TimePoint{}) {
        return received == Received::stopped ? exit_ok : report_no_record(link, info);
    }
    if (options.is_once) {
        show_once(link, watch);
        return exit_ok;
    }
    return watch_on(link, watch);
}
