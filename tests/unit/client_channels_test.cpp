// How a client reads the daemon's answers about the radio-control receivers.
#include "client/rc_channels.h"

#include <gtest/gtest.h>

static ReceiverAnswer receiver_of(const char *answer) {
    return parse_receiver(answer).value_or(ReceiverAnswer{});
}

static const char *const answer =
    R"({"cmd":"rc1","state":2,"ch":[)"
    R"({"raw":1500,"min":900,"max":2100,"c":1400,"i":1,"val":-0.143,"d":7,"e":1,"l":90,"f":2},)"
    R"({"raw":1600,"min":1550,"max":1649,"c":1590,"i":0,"val":0.000,"d":0,"e":1,"l":100,"f":77}]})";

TEST(RcChannels, AreReadAsTheyCome) {
    const ReceiverAnswer receiver = receiver_of(answer);
    EXPECT_EQ(receiver.state, rc_calibrating);
    ASSERT_EQ(receiver.channels.size(), 2U);
    EXPECT_EQ(receiver.channels[0].centre, 1400);
    EXPECT_TRUE(receiver.channels[0].is_inverted);
    EXPECT_EQ(receiver.json.substr(0, 27), R"({"state":2,"ch":[{"raw":150)");
    EXPECT_FALSE(parse_receiver(R"({"cmd":"rc1","state":2})"));
    EXPECT_FALSE(parse_receiver(R"({"cmd":"rc1","ch":[]})"));
    EXPECT_FALSE(parse_receiver("{"));
}

TEST(RcChannels, HaveMovedWhenTheyHaveTwoEnds) {
    ReceiverAnswer receiver = receiver_of(answer);
    EXPECT_EQ(moved_channels(receiver), (std::vector<int>{1}));
    receiver.channels[1].max = 1650;
    EXPECT_EQ(moved_channels(receiver), (std::vector<int>{1, 2}));
    EXPECT_EQ(moved_channels(ReceiverAnswer{}), std::vector<int>{});
}

TEST(RcChannels, AreCalibratedByCommands) {
    EXPECT_EQ(calibration_command(CalibrationStep::begin_ends, 1),
              R"({"cmd":"rc","param":"calibrate-minmax","value":"0"})");
    EXPECT_EQ(calibration_command(CalibrationStep::finish_ends, 2),
              R"({"cmd":"rc","param":"finish-minmax","value":"1"})");
    EXPECT_EQ(calibration_command(CalibrationStep::take_centres, 2),
              R"({"cmd":"rc","param":"set-center","value":"1"})");
}

TEST(RcChannels, AreRestoredByOneCommand) {
    EXPECT_EQ(restore_command(2, receiver_of(answer)),
              R"({"cmd":"rc","param":"set-config","value":"1","value2":)"
              R"("[{\"ch\":1,\"min\":900,\"c\":1400,\"max\":2100},)"
              R"({\"ch\":2,\"min\":1550,\"c\":1590,\"max\":1649}]"})");
}

TEST(RcChannels, AreComparedByTheirCalibration) {
    const ReceiverAnswer one = receiver_of(answer);
    ReceiverAnswer other = one;
    other.channels[0].raw = 1;
    EXPECT_TRUE(is_calibrated_alike(one, other));
    other.channels[1].max = 1650;
    EXPECT_FALSE(is_calibrated_alike(one, other));
    EXPECT_FALSE(is_calibrated_alike(one, ReceiverAnswer{}));
}

TEST(RcChannels, HaveNewCentresWhenOneChangedOrAllAreThere) {
    const ReceiverAnswer earlier = receiver_of(answer);
    ReceiverAnswer now = earlier;
    EXPECT_FALSE(has_new_centres(earlier, now));
    now.channels[0].centre = 1499;
    EXPECT_TRUE(has_new_centres(earlier, now));
    EXPECT_TRUE(has_new_centres(now, now));
}
