// Single smooth movements, one pass per call. The movement thread is not started, and without a
// shared camera state the camera points straight ahead.

#include "automove/movement_list.h"
#include "automove/movement_runner.h"
#include "config/config.h"
#include "rc/rc_block.h"

#include <gtest/gtest.h>

namespace {

class SmoothRunner : public ::testing::Test {
protected:
    void SetUp() override {
        set_app_gimbal_values(0.0, 0.0, 0.0);
        config_record().automove_smooth = 1;
        config_record().automove_smooth_speed = 6;
        // Far to the left, straight ahead, and exactly at the arrival threshold.
        set_movement_list("90,0,0,,,,,0,0,;0,0,0,,,,,0,0,;5,0,0,,,,,0,0,");
    }
    void TearDown() override {
        set_movement_list("");
        config_record().automove_smooth = 0;
        config_record().automove_smooth_speed = 0;
        set_app_gimbal_values(0.0, 0.0, 0.0);
    }
};

constexpr int far = 0;
constexpr int ahead = 1;
constexpr int near = 2;

double pan_after(int movement) {
    run_movement(movement);
    return app_gimbal_values().pan;
}

} // namespace

TEST_F(SmoothRunner, AMovementAfterOneThatEndedMovesAtOnce) {
    EXPECT_EQ(pan_after(far), -0.5);
    EXPECT_EQ(pan_after(ahead), 0.0);
    EXPECT_EQ(pan_after(far), -0.5);
    EXPECT_EQ(pan_after(near), 0.0);
    EXPECT_EQ(pan_after(far), -0.5);
}

// Ten passes with the same speeds send nothing; the next one sends them again.
TEST_F(SmoothRunner, UnchangedSpeedsAreSentAgainWithTheEleventhPass) {
    pan_after(ahead); // a known state, whatever was sent before
    EXPECT_EQ(pan_after(far), -0.5);
    set_app_gimbal_values(0.25, 0.0, 0.0); // a client's
    for (int pass = 1; pass <= 10; ++pass) {
        EXPECT_EQ(pan_after(far), 0.25) << pass;
    }
    EXPECT_EQ(pan_after(far), -0.5);
    set_app_gimbal_values(0.25, 0.0, 0.0);
    EXPECT_EQ(pan_after(far), 0.25);
}

TEST_F(SmoothRunner, NewSpeedsBeginTheCountAnew) {
    pan_after(ahead);
    EXPECT_EQ(pan_after(far), -0.5);
    for (int pass = 1; pass <= 6; ++pass) {
        pan_after(far);
    }
    config_record().automove_smooth_speed = 5;
    EXPECT_EQ(pan_after(far), -0.2);
    set_app_gimbal_values(0.25, 0.0, 0.0);
    for (int pass = 1; pass <= 10; ++pass) {
        EXPECT_EQ(pan_after(far), 0.25) << pass;
    }
    EXPECT_EQ(pan_after(far), -0.2);
}

TEST_F(SmoothRunner, AMoveToWhereTheCameraIsStopsWhatAClientWanted) {
    pan_after(ahead);
    set_app_gimbal_values(1.0, -1.0, 1.0);
    run_movement(ahead);
    EXPECT_EQ(app_gimbal_values().pan, 0.0);
    EXPECT_EQ(app_gimbal_values().tilt, 0.0);
    EXPECT_EQ(app_gimbal_values().roll, 0.0);
}
