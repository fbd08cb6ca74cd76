#include "beacon_sim/gimbal.h"

#include "automove/camera_state_layout.h"
#include "base/shared_numbers.h"
#include "rc/rc_block_layout.h"

#include <cmath>
#include <gtest/gtest.h>
#include <vector>

static Gimbal turned(double pan, double tilt, double roll, double seconds) {
    Gimbal gimbal;
    const double speeds[] = {pan, tilt, roll};
    turn_gimbal(gimbal, speeds, seconds);
    return gimbal;
}

static void expect_angles(const Gimbal &gimbal, double pan, double tilt, double roll) {
    EXPECT_NEAR(gimbal.angles[0], pan, 1e-9);
    EXPECT_NEAR(gimbal.angles[1], tilt, 1e-9);
    EXPECT_NEAR(gimbal.angles[2], roll, 1e-9);
}

static SourceCommand position(const char *param, const char *pan, const char *tilt,
                              const char *roll) {
    return {"position", "", param, {pan, tilt, roll}};
}

TEST(SimulatedGimbal, TurnsPanAndRollAgainstTheirSpeedAndTiltWithIt) {
    expect_angles(turned(1, 1, 1, 0.5), -20, 20, -20);
    expect_angles(turned(-0.5, -0.25, 0.1, 1), 20, -10, -4);
}

TEST(SimulatedGimbal, EndsAtItsReach) {
    expect_angles(turned(1, 1, -1, 100), -180, 180, 180);
}

TEST(SimulatedGimbal, TakesNoSpeedBeyondOneAndNoneThatIsNoNumber) {
    expect_angles(turned(1000, -1000, NAN, 1), -40, -40, 0);
    expect_angles(turned(INFINITY, 0.5, NAN, 1), 0, 20, 0);
}

TEST(SimulatedGimbal, GoesToAPoseAndStaysThere) {
    Gimbal gimbal;
    const double still[] = {0, 0, 0};
    EXPECT_TRUE(order_gimbal(gimbal, position("abs", "150.0", "-100.0", "5.0")));
    turn_gimbal(gimbal, still, 0.25);
    expect_angles(gimbal, 10, -10, 0.5);
    turn_gimbal(gimbal, still, 1);
    expect_angles(gimbal, 15, -10, 0.5);
    turn_gimbal(gimbal, still, 1);
    expect_angles(gimbal, 15, -10, 0.5);
    EXPECT_TRUE(order_gimbal(gimbal, position("hold", "150.0", "-100.0", "5.0")));
    EXPECT_DOUBLE_EQ(widest_angle(gimbal), 15);
}

TEST(SimulatedGimbal, LeavesAPoseWhenAStickMoves) {
    Gimbal gimbal;
    order_gimbal(gimbal, position("abs", "900", "0", "0"));
    const double stick[] = {0, 0.5, 0};
    const double still[] = {0, 0, 0};
    turn_gimbal(gimbal, stick, 1);
    expect_angles(gimbal, 0, 20, 0);
    turn_gimbal(gimbal, still, 1);
    expect_angles(gimbal, 0, 20, 0);
}

TEST(SimulatedGimbal, PassesOverWhatIsNoPose) {
    Gimbal gimbal;
    for (const char *bad : {"", "x", "12x", "nan", "1e999"}) {
        EXPECT_FALSE(order_gimbal(gimbal, position("abs", "10", bad, "10"))) << bad;
    }
    EXPECT_FALSE(order_gimbal(gimbal, position("rel", "10", "10", "10")));
    EXPECT_FALSE(order_gimbal(gimbal, {"shot", "", "abs", {"10", "10", "10"}}));
    EXPECT_FALSE(gimbal.is_sent);
    EXPECT_TRUE(order_gimbal(gimbal, position("abs", "99999", "-99999", "0")));
    EXPECT_DOUBLE_EQ(gimbal.target[0], 180);
    EXPECT_DOUBLE_EQ(gimbal.target[1], -180);
}

TEST(SimulatedGimbal, ReadsAndWritesTheSharedLayouts) {
    std::vector<uint8_t> block(rc_block_size, 0);
    for (size_t function = 0; function < rc_function_count; ++function) {
        store_whole(block.data() + rc_values_at + 8 * function,
                    static_cast<double>(function) / 100);
    }
    double speeds[gimbal_axes];
    read_gimbal_speeds(block.data(), speeds);
    EXPECT_EQ(speeds[0], 0.02);
    EXPECT_EQ(speeds[1], 0.03);
    EXPECT_EQ(speeds[2], 0.04);
    Gimbal gimbal;
    gimbal.angles[0] = 12.34;
    gimbal.angles[1] = -12.36;
    gimbal.angles[2] = 180;
    alignas(8) uint8_t state[camera_state_size];
    write_camera_state(gimbal, state);
    const uint8_t expected[] = {123, 0, 0x84, 0xFF, 0x08, 0x07};
    EXPECT_EQ(std::vector<uint8_t>(state, state + 6), std::vector<uint8_t>(expected, expected + 6));
}

TEST(SourceCommand, IsReadFromTheDaemonsText) {
    const auto command = parse_source_command(
        R"(!{"cmd":"position","name":"n","param":"abs","value":"1","value2":"2","value3":"3"})");
    ASSERT_TRUE(command);
    EXPECT_EQ(command->cmd, "position");
    EXPECT_EQ(command->name, "n");
    EXPECT_EQ(command->param, "abs");
    EXPECT_EQ(command->values[0] + command->values[1] + command->values[2], "123");
    const auto shorter = parse_source_command(R"(!{"cmd":"shot","param":7})");
    ASSERT_TRUE(shorter);
    EXPECT_EQ(shorter->cmd, "shot");
    EXPECT_EQ(shorter->param, "");
}

TEST(SourceCommand, IsNothingElse) {
    for (const char *text :
         {"", "!", "{}", "!{", "!{\"cmd\":\"position\"", "!x{}", "!7", "!\"cmd\""}) {
        EXPECT_FALSE(parse_source_command(text)) << text;
    }
    EXPECT_EQ(escaped_line(std::string_view("a\\ \n\0\xff~", 7)), "a\\x5c \\x0a\\x00\\xff~");
}
