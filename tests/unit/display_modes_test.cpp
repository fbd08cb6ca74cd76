#include "config/display_modes.h"

#include <gtest/gtest.h>

TEST(CurrentMode, ReadsHdmi) {
    EXPECT_EQ(parse_current_mode("state 0x12000a [HDMI CEA (16) RGB lim 16:9], 1920x1080 @ "
                                 "59.94Hz, progressive\n"),
              R"("state":1179658,"family":"CEA","code":"16","aspect":"16:9","size":"1920x1080",)"
              R"("rate":60,"output":"HDMI","scan":"p")");
}

TEST(CurrentMode, ReadsComposite) {
    EXPECT_EQ(parse_current_mode("state 0x40001 [NTSC 4:3], 720x480 @ 60.00Hz, interlaced\n"),
              R"("state":262145,"family":"NTSC","aspect":"4:3","size":"720x480","rate":60,)"
              R"("output":"CVBS","scan":"i")");
}

TEST(CurrentMode, CountsEmptyTokens) {
    EXPECT_EQ(parse_current_mode("state  0x1 [PAL"),
              R"("state":0,"family":"0x1","aspect":"[PAL","output":"CVBS","scan":"i")");
}

TEST(CurrentMode, LeavesOutWhatIsMissing) {
    EXPECT_EQ(parse_current_mode(""), R"("output":"CVBS","scan":"i")");
    EXPECT_EQ(parse_current_mode("HDMI 0x10"), R"("state":16,"output":"HDMI","scan":"i")");
}

TEST(CurrentMode, RemovesEveryOccurrence) {
    EXPECT_EQ(parse_current_mode("HDMI 0x0x1F0x x CEA ((((4))) "),
              R"("state":31,"family":"CEA","code":"4","output":"HDMI","scan":"i")");
}

TEST(CurrentMode, RoundsTheRate) {
    const std::string head = "s 0 [P 4:3], 1x1 @ ";
    EXPECT_NE(parse_current_mode(head + "23.98Hz, i").find("\"rate\":24,"), std::string::npos);
    EXPECT_NE(parse_current_mode(head + "50Hz, i").find("\"rate\":50,"), std::string::npos);
    EXPECT_NE(parse_current_mode(head + "fastHz, i").find("\"rate\":0,"), std::string::npos);
}

TEST(CurrentMode, RoundsAHalfToTheEvenRate) {
    const std::string head = "s 0 [P 4:3], 1x1 @ ";
    EXPECT_NE(parse_current_mode(head + "60.50Hz, i").find("\"rate\":60,"), std::string::npos);
    EXPECT_NE(parse_current_mode(head + "59.50Hz, i").find("\"rate\":60,"), std::string::npos);
    EXPECT_NE(parse_current_mode(head + "2.5Hz, i").find("\"rate\":2,"), std::string::npos);
    EXPECT_NE(parse_current_mode(head + "60.51Hz, i").find("\"rate\":61,"), std::string::npos);
}

TEST(ModeList, TakesTheTokenBehindMode) {
    EXPECT_EQ(parse_mode_list("Group CEA has 2 modes:\n"
                              "           mode 1: 640x480 @ 60Hz 4:3, clock:25MHz progressive \n"
                              "  (prefer) mode 16: 1920x1080 @ 60Hz 16:9, clock:148MHz "
                              "progressive \n"),
              "[1,16]");
}

TEST(ModeList, IsEmptyWithoutModes) {
    EXPECT_EQ(parse_mode_list(""), "[]");
    EXPECT_EQ(parse_mode_list("Group DMT has 0 modes:\n"), "[]");
    EXPECT_EQ(parse_mode_list("mode \nmode"), "[]");
}

TEST(ModeList, UsesTheFirstModeOfALine) {
    EXPECT_EQ(parse_mode_list("mode 4: mode 5:\nxmode 7: mode 6:\n"), "[4,6]");
}

TEST(ModeList, CopiesCodesAsTheyAre) {
    EXPECT_EQ(parse_mode_list("mode a:b:c x\n"), "[abc]");
}

TEST(ModeList, CountsAnEmptyCodeToo) {
    EXPECT_EQ(parse_mode_list("mode  4: x\nmode 16: x\nmode  5: x\n"), "[,16,]");
}
