// The table of what can be set, and the commands that it makes.
#include "client/setting_rows.h"

#include "settings_document.h"

#include <gtest/gtest.h>
#include <set>
#include <vector>

using Words = std::vector<std::string>;

static const SettingRow &row(std::string_view param, std::string_view sub = "") {
    for (const SettingRow &each : setting_rows()) {
        if (param == each.param && sub == (each.sub == nullptr ? "" : each.sub)) {
            return each;
        }
    }
    ADD_FAILURE() << param << " " << sub;
    return setting_rows()[0];
}

// The table has exactly the keys that can be changed by an update according to docs/settings.md.
TEST(SettingRows, HaveTheKeysOfTheDocument) {
    std::set<std::string> documented;
    for (const std::string &line : lines_of_the_keys()) {
        if (line.find("by calibration") == std::string::npos) {
            documented.insert(line.substr(3, line.find('`', 3) - 3));
        }
    }
    std::set<std::string> known;
    for (const SettingRow &each : setting_rows()) {
        for (const SettingField &field : each.fields) {
            if (each.section != nullptr) {
                known.insert(field.key);
            }
        }
    }
    EXPECT_EQ(known, documented);
}

TEST(SettingCommand, ValuesAreNumbered) {
    EXPECT_EQ(update_command(row("ethernet"), Words{"1", "a", "b"}),
              R"({"cmd":"updateconfig","param":"ethernet","value":"1","value2":"a","value3":"b"})");
    EXPECT_EQ(update_command(row("display", "hflip"), Words{"1"}),
              R"({"cmd":"updateconfig","param":"display","value":"hflip","value2":"1"})");
    EXPECT_EQ(update_command(row("zerotier", "join"), Words{"8056c2"}),
              R"({"cmd":"updateconfig","param":"zerotier","value":"join","value4":"8056c2"})");
}

TEST(SettingCommand, ValuesAreCompared) {
    const SettingRow &ethernet = row("ethernet");
    EXPECT_TRUE(is_same_value(ethernet.fields[0], "1", "1"));
    EXPECT_FALSE(is_same_value(ethernet.fields[0], "1", "0"));
    EXPECT_TRUE(is_same_value(ethernet.fields[1], "a", "a"));
    EXPECT_FALSE(is_same_value(ethernet.fields[1], "", "255.255.255.0"));
    EXPECT_TRUE(is_same_value(ethernet.fields[2], "", "255.255.255.0"));
    EXPECT_TRUE(is_same_value(row("tft_display", "model").fields[0], "007", "7"));
}
