// How the words of "beaconctl set" name a row and its values.
#include "beaconctl/setting_words.h"

#include <gtest/gtest.h>

using Words = std::vector<std::string>;

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

TEST(SettingValues, InOrder) {
    const GivenValues given = read_values(row({"ethernet"}), Words{"on", "10.0.0.7", ""});
    EXPECT_EQ(given.error, "");
    EXPECT_EQ(given.values, (std::vector<std::optional<std::string>>{"1", "10.0.0.7", ""}));
}

TEST(SettingValues, ByNameOfTheKeyOrOfTheAnswersMember) {
    const GivenValues given =
        read_values(row({"ethernet"}), Words{"mask=a=b", "eth_static_ip="}, true);
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
    EXPECT_EQ(error({"1", "a"}), "2 values given instead of 3 (or NAME=VALUE for some)" + usage);
    EXPECT_EQ(error({"1"}), "1 value given instead of 3 (or NAME=VALUE for some)" + usage);
    EXPECT_EQ(error({}), "0 values given instead of 3 (or NAME=VALUE for some)" + usage);
    const std::string no_name =
        "\"nope=1\" is not a NAME=VALUE of this param; its names: eth_static_ip_enabled (enabled), "
        "eth_static_ip (ip), eth_static_mask (mask)";
    EXPECT_EQ(error({"ip=a", "nope=1"}), no_name);
    EXPECT_EQ(error({"nope=1", "ip=a"}), no_name);
    EXPECT_EQ(error({"nope=1"}), no_name);
    EXPECT_EQ(error({"2", "a", "b"}), "eth_static_ip_enabled takes 0 or 1, not \"2\"");
    EXPECT_EQ(read_values(row({"tft_display", "model"}), Words{"2x"}).error,
              "tft_display_model takes 0 (none), 1 (waveshare-2), 2 (waveshare-3.5a) or 3 "
              "(waveshare-3.5b), not \"2x\"");
    EXPECT_NE(read_values(row({"tft_display", "model"}), Words{"-2"}).error, "");
    EXPECT_EQ(error({"ip=10.1"}), "eth_static_ip takes an IPv4 address such as 192.168.1.100, or "
                                  "nothing, not \"10.1\"");
}

TEST(SettingValues, AnotherParamsNameIsToldFromAValue) {
    const auto error = [](const SettingRow &of, const Words &words) {
        return read_values(of, words).error;
    };
    EXPECT_EQ(error(row({"streaming", "srt"}), {"enabled=1"}),
              "\"enabled=1\" is not a NAME=VALUE of this param, did you mean "
              "\"stream_srt_enabled\"? its names: stream_srt_enabled (srt_enabled), "
              "stream_srt_url (srt_url)");
    EXPECT_EQ(error(row({"streaming", "rtsp"}), {"enabled=1"}),
              "\"enabled=1\" is not a NAME=VALUE of this param, did you mean "
              "\"rtsp_server_enabled\"? its names: rtsp_server_enabled (rtsp_enabled)");
    EXPECT_EQ(error(row({"automovement", "movenext"}), {"step=1"}),
              "\"step=1\" is not a NAME=VALUE of this param; it takes no values");
    EXPECT_EQ(error(row({"streaming", "srt"}), {"1", "srt://a?enabled=1"}), "");
    EXPECT_EQ(read_values(row({"streaming", "srt"}), Words{"1", "mode=caller"}, true).error, "");
}

TEST(SettingValues, ForceSendsWhatIsNotAllowed) {
    const GivenValues forced = read_values(row({"ethernet"}), Words{"on", "10.1", "24"}, true);
    EXPECT_EQ(forced.error, "");
    EXPECT_EQ(forced.values, (std::vector<std::optional<std::string>>{"1", "10.1", "24"}));
}

TEST(SettingValues, NamesOfChoicesAreTheirValues) {
    const GivenValues given = read_values(row({"recording"}), Words{"place=external"});
    EXPECT_EQ(given.error, "");
    EXPECT_EQ(given.values[1], "2");
}

TEST(SettingValues, OptionalOnesMayBeLeftOut) {
    const GivenValues given = read_values(row({"cvbs", "test"}), Words{"PAL", "4:3"});
    EXPECT_EQ(given.error, "");
    EXPECT_EQ(given.values, (std::vector<std::optional<std::string>>{"PAL", "4:3", std::nullopt}));
    EXPECT_NE(read_values(row({"cvbs", "test"}), Words{"PAL"}).error, "");
}
