#include "beaconctl/setting_change.h"

#include "beaconctl/consent.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/fail.h"
#include "beaconctl/screen.h"
#include "beaconctl/section.h"
#include "beaconctl/stop.h"
#include "beaconctl/text_table.h"
#include "client/mend.h"
#include "client/section.h"
#include "client/value_check.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>
#include <poll.h>

const char *const force_hint = "; --force sends it all the same";

int refuse_usage(const std::string &what) {
    fail(what);
    return exit_usage;
}

int ask_current(const Target &target, const SettingRow &row, Json &answer) {
    Link link;
    return open_board(link, target) ? ask_section(link, row.section, answer) : exit_silent;
}

// A value that was not given: the one that the board has now, or empty if it is optional.
static int complete_value(const SettingRow &row, size_t index, const Json &current,
                          std::string &value) {
    const SettingField &field = row.fields[index];
    if (row.section == nullptr) {
        return index >= row.fields.size() - row.optional
                   ? exit_ok
                   : refuse_usage(std::string(field.key) + " is missing; usage: beaconctl set " +
                                  usage_line(row));
    }
    if (!current.contains(field.member)) {
        return fail(std::string("the board does not say what ") + field.key +
                    " is now: give all values");
    }
    value = value_text(current[field.member]);
    return exit_ok;
}

static bool is_given(const SettingRow &row, const GivenValues &given, std::string_view key) {
    for (size_t i = 0; i < row.fields.size(); ++i) {
        if (key == row.fields[i].key) {
            return given.values[i].has_value();
        }
    }
    return false;
}

int refuse_conflict(const SettingChange &change) {
    for (const ValueConflict &each : conflicts_in(*change.row, change.values)) {
        if (is_given(*change.row, change.given, each.key) ||
            is_given(*change.row, change.given, each.other)) {
            return refuse_usage(each.text + force_hint);
        }
    }
    return exit_ok;
}

int complete_change(const Target &target, SettingChange &change, const SetOptions &options) {
    const GivenValues &given = change.given;
    const bool is_complete =
        std::all_of(given.values.begin(), given.values.end(), [](auto &value) { return !!value; });
    const bool is_asking = !is_complete || options.revert_after > 0;
    Json current;
    int code = exit_ok;
    if (is_asking && change.row->section != nullptr) {
        code = ask_current(target, *change.row, current);
    }
    for (size_t i = 0; code == exit_ok && i < given.values.size(); ++i) {
        std::string now;
        if (!given.values[i] || !current.is_null()) {
            code = complete_value(*change.row, i, current, now);
        }
        change.values.push_back(given.values[i].value_or(now));
        change.before.push_back(now);
    }
    return code != exit_ok || options.is_forced ? code : refuse_conflict(change);
}

// What the board has now: the values that were taken, those that were not, and all as JSON.
struct Confirmation {
    std::vector<std::pair<std::string, std::string>> taken;
    Json reported = Json::object();
    std::string differences;
    const char *unanswered = nullptr; // what to say instead
};

static void compare_values(const SettingChange &change, const Json &answer, Confirmation &told) {
    for (size_t i = 0; i < change.values.size(); ++i) {
        const SettingField &field = change.row->fields[i];
        const Json reported = answer.value(field.member, Json(""));
        const std::string now = value_text(reported);
        const bool is_taken = is_same_value(field, change.values[i], now);
        if (change.given.values[i] || !is_taken) {
            told.reported[field.key] = reported;
        }
        if (!is_taken) {
            told.differences += std::string(told.differences.empty() ? "" : ", ") + field.key +
                                " is \"" + printable(now, false) + "\"";
        } else if (change.given.values[i]) {
            told.taken.emplace_back(field.key, now);
        }
    }
}

// The daemon does not answer the command itself, so this checks first that it is there.
static int send_update(const Target &target, const std::string &command) {
    Link link;
    BoardInfo info{};
    if (const int code = reach_board(link, target, info); code != exit_ok) {
        return code;
    }
    if (command.size() > largest_client_payload) {
        return refuse_usage("the values are longer than the daemon reads");
    }
    send_payload(link, command);
    return exit_ok;
}

// Sends the values and reads them back, if that can be done.
static int apply_change(const Target &target, const SettingChange &change, Confirmation &told) {
    const SettingRow &row = *change.row;
    if (const int code = send_update(target, update_command(row, change.values)); code != exit_ok) {
        return code;
    }
    if (row.section == nullptr || row.ends_daemon) {
        told.unanswered = row.ends_daemon
                              ? "Sent. The daemon stores it, ends, and is started again with it."
                              : "Sent; the daemon does not say what becomes of it.";
        return exit_ok;
    }
    Json answer;
    // Over a new socket: a late answer to the earlier question must not be taken for this one.
    if (const int code = ask_current(target, row, answer); code != exit_ok) {
        fail("the command was sent; whether it was carried out is not known");
        return code;
    }
    compare_values(change, answer, told);
    return exit_ok;
}

static int report(const Confirmation &told, bool as_json) {
    if (as_json) {
        print_lines({json_text(told.reported)});
    } else {
        std::vector<std::string> lines = table_lines(told.taken);
        if (told.unanswered != nullptr) {
            lines.emplace_back(told.unanswered);
        }
        print_lines(lines);
    }
    return told.differences.empty() ? exit_ok : fail("not taken as given: " + told.differences);
}

// Does the board have the old values? Nothing: it does not answer.
static std::optional<bool> has_old_values(const Target &target, const SettingChange &change) {
    constexpr double patience = 2.0;
    Link link; // a new one: an answer to an earlier question must not be taken for this one
    SectionAnswer answer;
    if (open_link(link, target.host, target.port).result != Opened::opened ||
        ask(link, section_request(change.row->section, patience, answer)) != Outcome::answered ||
        answer.result != SectionResult::settings) {
        return std::nullopt;
    }
    for (size_t i = 0; i < change.before.size(); ++i) {
        const SettingField &field = change.row->fields[i];
        if (!is_same_value(field, change.before[i],
                           value_text(answer.settings.value(field.member, Json(""))))) {
            return false;
        }
    }
    return true;
}

// Sends the old values once, unless the board has them: a second command could end the daemon, or
// restart an interface, once more. Reads them back. Says nothing: the link may not stand.
static bool take_back_once(const Target &target, const SettingChange &change) {
    const std::optional<bool> has_already = has_old_values(target, change);
    if (!has_already || *has_already) {
        return has_already.has_value();
    }
    Link link;
    if (open_link(link, target.host, target.port).result != Opened::opened) {
        return false;
    }
    send_payload(link, update_command(*change.row, change.before));
    return has_old_values(target, change).value_or(false);
}

static int take_back(const Target &target, const std::vector<SettingChange> &changes) {
    constexpr double patience = 30.0; // for each: interfaces may just be starting again
    forget_stop();                    // another signal ends this, too
    size_t restored = 0;
    TimePoint end = after(patience);
    while (restored < changes.size() && Clock::now() < end && !stop_requested()) {
        if (take_back_once(target, changes[restored])) {
            ++restored;
            end = after(patience);
        } else {
            poll(nullptr, 0, 1000); // a signal ends it
        }
    }
    if (restored == changes.size()) {
        return fail("not confirmed: the old values are back");
    }
    fail("not confirmed, but the old values could not be sent: the board may have the new ones");
    return exit_silent;
}

// Refuses to send texts in which bytes were replaced when they were read.
static int check_bytes(const SettingChange &change, const SetOptions &options) {
    for (size_t i = 0; i < change.values.size(); ++i) {
        const std::string what =
            std::string(change.row->fields[i].key) + " has bytes that are not UTF-8";
        if (is_mended(change.values[i])) {
            return fail(what + ", which would be lost: give its value too" + force_hint);
        }
        if (options.revert_after > 0 && is_mended(change.before[i])) {
            return fail(what + ", so it cannot be taken back" + force_hint);
        }
    }
    return exit_ok;
}

// Can these changes be made without asking, or be asked about and taken back? Nothing is sent yet.
static int check_wishes(const std::vector<SettingChange> &changes, bool is_cutting,
                        const SetOptions &options) {
    const bool is_readable = std::all_of(changes.begin(), changes.end(), [](const auto &each) {
        return each.row->section != nullptr;
    });
    if (options.revert_after > 0 && !is_readable) {
        return refuse_usage("--revert-after: these values cannot be read, so not taken back");
    }
    for (const SettingChange &change : changes) {
        if (const int code = options.is_forced ? exit_ok : check_bytes(change, options);
            code != exit_ok) {
            return code;
        }
    }
    return is_cutting && !options.is_sure && !can_ask()
               ? refuse_to_ask("set " + std::string(changes[0].row->param))
               : exit_ok;
}

int apply_changes(const Target &target, std::vector<SettingChange> &changes,
                  const SetOptions &options) {
    // Last what may end the daemon, before that what may cut the link.
    std::stable_sort(changes.begin(), changes.end(), [](const auto &a, const auto &b) {
        const auto rank = [](const SettingRow &row) {
            return (can_cut_link(row) ? 1 : 0) + (row.ends_daemon ? 1 : 0);
        };
        return rank(*a.row) < rank(*b.row);
    });
    const bool is_cutting = !changes.empty() && can_cut_link(*changes.back().row);
    if (const int code = check_wishes(changes, is_cutting, options); code != exit_ok) {
        return code;
    }
    const std::string name = target.host + ":" + std::to_string(target.port);
    if (is_cutting && !options.is_sure &&
        !ask_yes("This may cut the link to " + name + ". Change it?")) {
        return fail("not changed");
    }
    Confirmation told;
    int code = exit_ok;
    for (const SettingChange &change : changes) {
        code = code == exit_ok ? apply_change(target, change, told) : code;
    }
    code = code == exit_ok ? report(told, options.as_json) : code;
    if (options.revert_after <= 0) {
        return code;
    }
    char seconds[40];
    snprintf(seconds, sizeof seconds, "%g", options.revert_after);
    return ask_yes_within("Keep this? Type y within " + std::string(seconds) +
                              " s, or it is taken back: ",
                          options.revert_after)
               ? code
               : take_back(target, changes);
}
