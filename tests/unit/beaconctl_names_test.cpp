// How settings are found by any of their names, and what a wrong name is answered with.
#include "beaconctl/near_word.h"
#include "beaconctl/setting_names.h"

#include <gtest/gtest.h>

using Words = std::vector<std::string>;

TEST(NearWord, IsTheOneThatWasProbablyMeant) {
    const Words names = {"hflip", "vflip", "enabled", "wlan", "x"};
    EXPECT_EQ(near_word("hflp", names), "hflip");
    EXPECT_EQ(near_word("HFLIP", names), "hflip");
    EXPECT_EQ(near_word("vlfip", names), "vflip");
    EXPECT_EQ(near_word("enbled", names), "enabled");
    EXPECT_EQ(near_word("wlna", names), "wlan");
    EXPECT_EQ(near_word("sound", names), "");
    EXPECT_EQ(near_word("y", names), "");
    const std::vector<std::string> keys{"hdmi", "display_hflip", "osd_hflip"};
    EXPECT_EQ(near_word("hflip", keys), "display_hflip");
    EXPECT_EQ(near_word("flip", keys), "");
    EXPECT_EQ(near_word("", names), "");
    EXPECT_EQ(near_hint("hflp", names), ", did you mean \"hflip\"?");
    EXPECT_EQ(near_hint("sound", names), "");
}

static std::string key_of(std::string_view group, std::string_view name) {
    const FieldPlace place = find_field(group, name);
    return place.row == nullptr ? "" : place.row->fields[place.index].key;
}

TEST(SettingNames, AnyOfThemFindsTheField) {
    for (const char *name : {"display_hflip", "hflip"}) {
        EXPECT_EQ(key_of("display", name), "display_hflip");
    }
    EXPECT_EQ(key_of("", "display_hflip"), "display_hflip");
    EXPECT_EQ(key_of("", "hflip"), "");
    EXPECT_EQ(key_of("display", "aspect_ratio"), "display_keep_aspect");
    EXPECT_EQ(key_of("display", "daspect"), "display_keep_aspect");
    EXPECT_EQ(key_of("display", "enabled"), "display_enabled");
    EXPECT_EQ(key_of("osd", "enabled"), "osd_enabled");
    EXPECT_EQ(key_of("display", "tft_model"), "tft_display_model");
    EXPECT_EQ(key_of("wifi", "ap_ssid"), "ap_ssid");
    EXPECT_EQ(key_of("wlan", "ap_ssid"), "ap_ssid");
    EXPECT_EQ(key_of("video", "autogain_enabled"), "audio_autogain");
    EXPECT_EQ(key_of("recording", "enabled"), "recording_enabled");
    EXPECT_EQ(key_of("cvbs", "standard"), "");
    EXPECT_STREQ(find_field("recording", "enabled").row->param, "recording");
    EXPECT_STREQ(find_field("rec", "enabled").row->param, "rec");
}

TEST(SettingNames, SectionsOfGroups) {
    EXPECT_STREQ(section_of("wifi"), "wifi");
    EXPECT_STREQ(section_of("wlan"), "wifi");
    EXPECT_STREQ(section_of("osd"), "display");
    EXPECT_EQ(section_of("cvbs"), nullptr);
    EXPECT_EQ(section_of("nope"), nullptr);
    EXPECT_TRUE(is_group("cvbs") && is_group("wifi") && !is_group("hflip"));
    EXPECT_TRUE(is_part_of_section("osd") && is_part_of_section("audio"));
    EXPECT_FALSE(is_part_of_section("wlan") || is_part_of_section("display"));
}

// "PARAM SUB: words; ..." for the rows of a plan, or its error.
static std::string plan(const Words &words) {
    const SetPlan made = plan_set(words);
    std::string text = made.error;
    for (const RowWords &each : made.rows) {
        text += std::string(text.empty() ? "" : "; ") + each.row->param +
                (each.row->sub == nullptr ? "" : std::string(" ") + each.row->sub) + ":";
        for (const std::string &word : each.words) {
            text += " " + word;
        }
    }
    return text;
}

TEST(SettingNames, ThePlanOfASet) {
    EXPECT_EQ(plan({"display", "hflip", "on"}), "display hflip: on");
    EXPECT_EQ(plan({"wifi", "ap_channel=1"}), "wlan: ap_channel=1");
    EXPECT_EQ(plan({"camera", "1", "-w 1"}), "internal_camera: 1 -w 1");
    EXPECT_EQ(plan({"display", "hflip=on", "osd=1"}),
              "display hflip: display_hflip=on; osd enabled: osd_enabled=1");
    EXPECT_EQ(plan({"display", "daspect", "1"}), "display aspect_ratio: display_keep_aspect=1");
    EXPECT_EQ(plan({"video", "audio_volume=5", "resize_width=6", "audio_dst=hdmi"}),
              "audio: audio_volume=5 audio_dst=hdmi; transcoding: resize_width=6");
    EXPECT_EQ(plan({"display_hflip", "on"}), "display hflip: display_hflip=on");
    EXPECT_EQ(plan({"ap_ssid=a=b", "device_name=c"}), "wlan: ap_ssid=a=b; app_type: device_name=c");
    EXPECT_EQ(plan({"streaming", "srt_enabled=1"}), "streaming srt: stream_srt_enabled=1");
}

TEST(SettingNames, AWrongNameIsAnsweredWithTheNearestRightOne) {
    EXPECT_EQ(plan({"displya", "hflip", "1"}),
              "there is no param \"displya\", did you mean \"display\"? \"beaconctl set\" lists "
              "those that there are");
    EXPECT_EQ(plan({"nope", "1"}).substr(0, 27), "there is no param \"nope\"; \"");
    EXPECT_EQ(plan({"osd", "bordrs", "on"}).substr(0, 54),
              "there is no \"bordrs\" in osd, did you mean \"borders\"?");
    EXPECT_EQ(plan({"osd", "bordrs", "on", "off"}),
              "there is no \"bordrs\" in osd, did you mean \"borders\"? \"osd\" is used like this:"
              "\n  beaconctl set osd enabled <osd_enabled:0|1>"
              "\n  beaconctl set osd borders <osd_borders:0|1>");
    EXPECT_EQ(plan({"display", "hflp=on"}),
              "there is no \"hflp\" in display, did you mean \"hflip\"?");
    EXPECT_EQ(plan({"display_hflp=1"}),
              "there is no setting \"display_hflp\", did you mean \"display_hflip\"?");
    EXPECT_EQ(plan({"display_hflip"}), "\"display_hflip\" needs one value");
}
