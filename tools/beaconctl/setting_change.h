#pragma once

// Changes settings on a board: completes the values, asks, sends, reads back, and takes them back.
// Stands on: beaconctl/board, beaconctl/commands, beaconctl/consent, beaconctl/exit_codes,
// beaconctl/fail, beaconctl/screen, beaconctl/section, beaconctl/setting_words, beaconctl/stop,
// beaconctl/text_table, client/answers, client/mend, client/section, client/setting_rows,
// client/value_check.

#include "beaconctl/board.h"
#include "beaconctl/commands.h"
#include "beaconctl/setting_words.h"
#include "client/answers.h"
#include "client/setting_rows.h"

#include <string>
#include <vector>

// The new values of a row.
struct SettingChange {
    const SettingRow *row;
    GivenValues given;
    std::vector<std::string> values; // one for each field; filled in by complete_change()
    std::vector<std::string> before; // the board's, if they were asked for; else empty
};

// The functions return an exit code; if it is not exit_ok, a line on standard error has said why.

// Reads the section that has the row's values, over a socket of its own.
int ask_current(const Target &target, const SettingRow &row, Json &answer);

// Fills in the values that were not given, from the board if need be, and refuses values that do
// not go together.
int complete_change(const Target &target, SettingChange &change, const SetOptions &options);

// Refuses given values that do not go together, or not with the others of their row. A conflict
// that the board had before stays its own.
int refuse_conflict(const SettingChange &change);

// Asks if a change can cut the link, sends all of them, prints what became of them, and takes them
// back as options.revert_after says.
int apply_changes(const Target &target, std::vector<SettingChange> &changes,
                  const SetOptions &options);

// The command line is wrong: says what, and returns exit_usage.
int refuse_usage(const std::string &what);

// To be added to what is wrong with a value.
extern const char *const force_hint;
