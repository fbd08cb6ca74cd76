// beaconctl's table of what can be set, and how the words of a command line become a command.
#include "client/setting_rows.h"

#include <fstream>
#include <gtest/gtest.h>
#include <set>

using Words = std::vector<std::string>;
using Members = std::vector<std::pair<std::string, std::string>>;

static const SettingRow &row(const Words &words) {
    const auto [found, used] = find_setting_row(words);
    EXPECT_NE(found, nullptr);
    EXPECT_EQ(used, words.size());
    return *found;
}

TEST(SettingRows, AreFoundByParamAndSubCommand) {
    EXPECT_STREQ(row({"display", "hflip"}).fields[0].key, "display_hflip");
    EXPECT_STREQ(row({"rc"}).section, "rc");
    EXPECT_EQ(find_setting_row(Words{"display"}).first, nullptr);
    EXPECT_EQ(find_setting_row(Words{"display", "nope"}).first, nullptr);
    EXPECT_EQ(find_setting_row(Words{}).first, nullptr);
}

TEST(SettingRows, UsageTellsTheValues) {
    EXPECT_EQ(usage_line(row({"display", "hflip"})), "display hflip <display_hflip:0|1>");
    EXPECT_EQ(usage_line(row({"cvbs", "test"})), "cvbs test <standard> <aspect> [scan]");
    EXPECT_EQ(usage_line(row({"automovement", "movenext"})), "automovement movenext");
}

// Every key that docs/settings.md says can be changed by an update is in the table, and none else.
TEST(SettingRows, HaveTheKeysOfTheDocument) {
    std::set<std::string> documented;
    std::ifstream document(DOCS_FOLDER "/settings.md");
    for (std::string line; std::getline(document, line);) {
        if (line.rfind("| `", 0) == 0 && line.find("by calibration") == std::string::npos &&
            line.find("| Camera") == std::string::npos) {
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

TEST(SettingValues, InOrder) {
    const GivenValues given = read_values(row({"ethernet"}), Words{"on", "10.0.0.7", ""});
    EXPECT_EQ(given.error, "");
    EXPECT_EQ(given.values, (std::vector<std::optional<std::string>>{"1", "10.0.0.7", ""}));
}

TEST(SettingValues, ByNameOfTheKeyOrOfTheAnswersMember) {
    const GivenValues given = read_values(row({"ethernet"}), Words{"mask=a=b", "eth_static_ip="});
    EXPECT_EQ(given.error, "");
    EXPECT_EQ(given.values, (std::vector<std::optional<std::string>>{std::nullopt, "", "a=b"}));
}

TEST(SettingValues, AreRefusedWhenTheyCannotBeMeant) {
    const std::string usage =
        "; usage: beaconctl set ethernet <eth_static_ip_enabled:0|1> <eth_static_ip> "
        "<eth_static_mask>";
    const auto error = [](const Words &words) {
        return read_values(row({"ethernet"}), words).error;
    };
    EXPECT_EQ(error({"1", "a"}),
              "2 values given where 3 are taken (or NAME=VALUE for some)" + usage);
    EXPECT_EQ(error({}), "0 values given where 3 are taken (or NAME=VALUE for some)" + usage);
    const std::string no_name =
        "\"nope=1\" is no NAME=VALUE of this param; its names: eth_static_ip_enabled (enabled), "
        "eth_static_ip (ip), eth_static_mask (mask)";
    EXPECT_EQ(error({"ip=a", "nope=1"}), no_name);
    EXPECT_EQ(error({"nope=1", "ip=a"}), no_name);
    EXPECT_EQ(error({"nope=1"}), no_name);
    EXPECT_EQ(error({"2", "a", "b"}), "eth_static_ip_enabled takes 0 or 1, not \"2\"");
    EXPECT_EQ(read_values(row({"tft_display", "model"}), Words{"2x"}).error,
              "tft_display_model takes a number, not \"2x\"");
    EXPECT_EQ(read_values(row({"tft_display", "model"}), Words{"-2"}).error, "");
}

TEST(SettingValues, AnotherParamsNameIsToldFromAValue) {
    const auto error = [](const SettingRow &of, const Words &words) {
        return read_values(of, words).error;
    };
    EXPECT_EQ(error(row({"streaming", "srt"}), {"enabled=1"}),
              "\"enabled=1\" is no NAME=VALUE of this param; its names: stream_srt_enabled "
              "(srt_enabled), stream_srt_url (srt_url)");
    EXPECT_EQ(error(row({"streaming", "rtsp"}), {"enabled=1"}),
              "\"enabled=1\" is no NAME=VALUE of this param; its names: rtsp_server_enabled "
              "(rtsp_enabled)");
    EXPECT_EQ(error(row({"automovement", "movenext"}), {"step=1"}),
              "\"step=1\" is no NAME=VALUE of this param; it takes no values");
    EXPECT_EQ(error(row({"streaming", "srt"}), {"1", "srt://a?enabled=1"}), "");
    EXPECT_EQ(error(row({"streaming", "srt"}), {"1", "mode=caller"}), "");
}

TEST(SettingValues, OptionalOnesMayBeLeftOut) {
    const GivenValues given = read_values(row({"cvbs", "test"}), Words{"PAL", "4:3"});
    EXPECT_EQ(given.error, "");
    EXPECT_EQ(given.values, (std::vector<std::optional<std::string>>{"PAL", "4:3", std::nullopt}));
    EXPECT_NE(read_values(row({"cvbs", "test"}), Words{"PAL"}).error, "");
}

TEST(SettingCommand, ValuesAreNumbered) {
    EXPECT_EQ(command_members(row({"ethernet"}), Words{"1", "a", "b"}),
              (Members{{"param", "ethernet"}, {"value", "1"}, {"value2", "a"}, {"value3", "b"}}));
    EXPECT_EQ(command_members(row({"display", "hflip"}), Words{"1"}),
              (Members{{"param", "display"}, {"value", "hflip"}, {"value2", "1"}}));
    EXPECT_EQ(command_members(row({"zerotier", "join"}), Words{"8056c2"}),
              (Members{{"param", "zerotier"}, {"value", "join"}, {"value4", "8056c2"}}));
}

TEST(SettingCommand, ValuesAreCompared) {
    const SettingRow &ethernet = row({"ethernet"});
    EXPECT_TRUE(is_same_value(ethernet.fields[0], "1", "1"));
    EXPECT_FALSE(is_same_value(ethernet.fields[0], "1", "0"));
    EXPECT_TRUE(is_same_value(ethernet.fields[1], "a", "a"));
    EXPECT_FALSE(is_same_value(ethernet.fields[1], "", "255.255.255.0"));
    EXPECT_TRUE(is_same_value(ethernet.fields[2], "", "255.255.255.0"));
    EXPECT_TRUE(is_same_value(row({"tft_display", "model"}).fields[0], "007", "7"));
}
