#include "beacon_sim/stick_keys.h"
#include "beacon_sim/stick_script.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>

static StickScript parsed(std::string_view text) {
    StickScript script;
    EXPECT_EQ(parse_stick_script(text, script), "");
    return script;
}

static std::string error_of(std::string_view text) {
    StickScript script;
    return parse_stick_script(text, script);
}

TEST(StickScript, RunsStraightLinesBetweenItsPoints) {
    const StickScript script = parsed("1 ch1=1500 ch2=1000\n3 ch1=2000\n4\tch1=1000 ch2=1003\r\n");
    const auto &pan = script.channels[0];
    EXPECT_EQ(stick_raw_value(pan, 0), 1500) << "before the first point";
    EXPECT_EQ(stick_raw_value(pan, 1), 1500);
    EXPECT_EQ(stick_raw_value(pan, 2), 1750);
    EXPECT_EQ(stick_raw_value(pan, 3), 2000);
    EXPECT_EQ(stick_raw_value(pan, 3.75), 1250);
    EXPECT_EQ(stick_raw_value(pan, 99), 1000) << "behind the last point";
    EXPECT_EQ(stick_raw_value(script.channels[1], 2), 1001) << "a line names what it moves";
    EXPECT_TRUE(script.channels[2].empty());
    EXPECT_EQ(script.seconds, 4);
}

TEST(StickScript, JumpsAtPointsOfTheSameTime) {
    const StickScript script = parsed("0 ch5=1000\n2 ch5=1000\n2 ch5=2000\n5 ch5=2000");
    EXPECT_EQ(stick_raw_value(script.channels[4], 1.999), 1000);
    EXPECT_EQ(stick_raw_value(script.channels[4], 2), 2000);
}

TEST(StickScript, DrawsNoLineToOrFromNoSignal) {
    const StickScript script = parsed("0 ch1=1000\n2 ch1=0\n4 ch1=2000");
    EXPECT_EQ(stick_raw_value(script.channels[0], 1.9), 1000);
    EXPECT_EQ(stick_raw_value(script.channels[0], 3.9), 0);
    EXPECT_EQ(stick_raw_value(script.channels[0], 4), 2000);
}

TEST(StickScript, PassesOverCommentsAndEmptyLines) {
    const StickScript script = parsed("# sticks\n\n  \n 0 ch1=1 # ch2=5\n0.5 ch32=65535");
    EXPECT_EQ(script.channels[0].size(), 1U);
    EXPECT_TRUE(script.channels[1].empty());
    EXPECT_EQ(stick_raw_value(script.channels[31], 7), 65535);
}

TEST(StickScript, SaysWhatIsWrongAndWhere) {
    EXPECT_EQ(error_of(""), "no channel moves in it");
    EXPECT_EQ(error_of("1\n"), "no channel moves in it");
    EXPECT_EQ(error_of("ch1=1"), "line 1: not a time in seconds: \"ch1=1\"");
    EXPECT_EQ(error_of("0 ch1=1\nnan ch1=1"), "line 2: not a time in seconds: \"nan\"");
    EXPECT_EQ(error_of("-1 ch1=1"), "line 1: not a time in seconds: \"-1\"");
    EXPECT_EQ(error_of("2 ch1=1\n\n1 ch1=1"),
              "line 3: a time before that of an earlier line: \"1\"");
    for (const char *word : {"ch0=1", "ch33=1", "ch1", "c1=1", "ch=1", "ch1x=1", "=1"}) {
        EXPECT_EQ(error_of(std::string("0 ") + word),
                  std::string("line 1: not a channel ch1 to ch32 with a value: \"") + word + "\"");
    }
    for (const char *word : {"ch1=", "ch1=-1", "ch1=65536", "ch1=1.5", "ch1=99999999999"}) {
        EXPECT_EQ(error_of(std::string("0 ") + word),
                  std::string("line 1: not a raw value 0 to 65535: \"") + word + "\"");
    }
}

TEST(StickScript, HasACircleBuiltIn) {
    const StickScript circle = circling_stick();
    for (double seconds = 0; seconds < 4; seconds += 0.01) {
        const double pan = stick_raw_value(circle.channels[0], seconds) - 1500.0;
        const double tilt = stick_raw_value(circle.channels[1], seconds) - 1500.0;
        EXPECT_NEAR(std::hypot(pan, tilt), 500, 2) << seconds;
        EXPECT_NEAR(pan, 500 * std::sin(seconds * 1.5707963), 3) << seconds;
    }
    EXPECT_EQ(stick_raw_value(circle.channels[0], 4), 1500);
    EXPECT_EQ(stick_raw_value(circle.channels[1], 4), 1500);
}

static KeySticks pressed(std::string_view keys) {
    KeySticks sticks;
    for (const char key : keys) {
        press_key(sticks, key);
    }
    return sticks;
}

TEST(StickKeys, MoveOneStepEach) {
    EXPECT_EQ(describe_sticks(pressed("")),
              "ch1=1500 ch2=1500 ch3=1500 ch5=1500 ch6=1500 ch7=1500 ch8=1500");
    EXPECT_EQ(describe_sticks(pressed("dDwe14")),
              "ch1=1700 ch2=1600 ch3=1600 ch5=2000 ch6=1500 ch7=1500 ch8=2000");
    EXPECT_EQ(describe_sticks(pressed("aasSqQ1213")),
              "ch1=1300 ch2=1300 ch3=1300 ch5=1500 ch6=2000 ch7=2000 ch8=1500");
    EXPECT_EQ(pressed("dddddddd").raw[0], 2000);
    EXPECT_EQ(pressed("aaaaaaaa").raw[0], 1000);
    EXPECT_EQ(describe_sticks(pressed("dwe1 ")),
              "ch1=1500 ch2=1500 ch3=1500 ch5=2000 ch6=1500 ch7=1500 ch8=1500");
}

TEST(StickKeys, KnowArrows) {
    EXPECT_EQ(pressed("\x1b[C\x1b[C\x1bOD").raw[0], 1600);
    EXPECT_EQ(pressed("\x1b[A\x1bOA\x1b[B").raw[1], 1600);
    // A lone escape, and sequences of other keys, move nothing.
    EXPECT_EQ(pressed("\x1b\x1b[A").raw[1], 1600);
    EXPECT_EQ(pressed("\x1b[H").raw[0], 1500);
    EXPECT_EQ(pressed("\x1b"
                      "d")
                  .raw[0],
              1600);
    KeySticks sticks;
    EXPECT_FALSE(press_key(sticks, '\x1b'));
    EXPECT_FALSE(press_key(sticks, '['));
    EXPECT_TRUE(press_key(sticks, 'A'));
    EXPECT_FALSE(press_key(sticks, 'x'));
}
