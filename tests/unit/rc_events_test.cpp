// What a pass makes of sticks and switches: menu codes, smoothed values, recording.

#include "rc_pass_fixture.h"

#include <gtest/gtest.h>
#include <limits>
#include <string>

// The menu.

class RcMenu : public RcPass {
protected:
    RcMenu() {
        add_stick(0, function_menu_switch);
        add_stick(1, function_pan);
        add_stick(2, function_tilt);
        add_stick(3, function_roll);
    }
    // Presses the switch and runs the passes in which the menu sees it.
    std::string toggle() {
        move_stick(0, 1.0);
        std::string found = events();
        found += events();
        move_stick(0, 0.0);
        found += events();
        return found + events();
    }
};

TEST_F(RcMenu, TheSwitchIsSeenInThePassAfterItsValueIsPublished) {
    move_stick(0, 1.0);
    EXPECT_EQ(events(), "");
    EXPECT_FALSE(state_.is_menu_enabled);
    EXPECT_EQ(events(), "2");
    EXPECT_TRUE(state_.is_menu_enabled);
    EXPECT_EQ(events(), "");
    move_stick(0, 0.0);
    EXPECT_EQ(events() + events(), "");
    move_stick(0, 0.002);
    EXPECT_EQ(events(), "");
    EXPECT_EQ(events(), "1") << "any value above 0 will do";
    EXPECT_FALSE(state_.is_menu_enabled);
}

TEST_F(RcMenu, TheSwitchRisesFromTheOtherSideToo) {
    move_stick(0, -1.0);
    EXPECT_EQ(events() + events() + events(), "");
    move_stick(0, 1.0);
    EXPECT_EQ(events() + events() + events(), "2");
    move_stick(0, -1.0);
    EXPECT_EQ(events() + events(), "");
    move_stick(0, 1.0);
    EXPECT_EQ(events() + events(), "1");
}

TEST_F(RcMenu, WithoutTheMenuDirectionsAreNotTold) {
    move_stick(1, 1.0);
    move_stick(2, -1.0);
    EXPECT_EQ(events() + events(), "");
    EXPECT_EQ(published(2), 1.0);
    EXPECT_EQ(published(3), -1.0);
}

TEST_F(RcMenu, EachDirectionIsToldOnce) {
    EXPECT_EQ(toggle(), "2");
    move_stick(1, 1.0);
    EXPECT_EQ(events() + events() + events(), "4");
    move_stick(1, 0.0);
    EXPECT_EQ(events(), "");
    move_stick(1, 1.0);
    EXPECT_EQ(events(), "4") << "again, as it was at the centre";
    move_stick(1, 0.0);
    EXPECT_EQ(events(), "");
    move_stick(1, -0.5);
    EXPECT_EQ(events() + events(), "3");
    move_stick(1, 0.5);
    EXPECT_EQ(events() + events(), "4") << "straight across";
    move_stick(2, 0.5);
    EXPECT_EQ(events() + events(), "5");
    move_stick(2, -0.5);
    EXPECT_EQ(events() + events(), "6");
    move_stick(1, 0.0);
    move_stick(2, 0.0);
    EXPECT_EQ(events() + events(), "");
    move_stick(1, -1.0);
    move_stick(2, 1.0);
    EXPECT_EQ(events(), "35") << "horizontal first";
    move_stick(1, 1.0);
    move_stick(2, -1.0);
    EXPECT_EQ(events(), "46");
}

TEST_F(RcMenu, DirectionsBeginBeyondTwoHundredths) {
    for (const int index : {1, 2}) {
        assign(index, {.function = index + 1, .min = 1500, .max = 61500, .center = 31500});
        set_raw(index, 31500);
    }
    toggle();
    for (const int index : {1, 2}) {
        for (const int delta : {600, -600, 599, -599}) { // 30000 is full deflection
            set_raw(index, 31500 + delta);
            EXPECT_EQ(events(), "") << delta;
        }
        set_raw(index, 31500 + 601);
        EXPECT_EQ(events(), index == 1 ? "4" : "5");
        set_raw(index, 31500 + 600);
        EXPECT_EQ(events(), "");
        set_raw(index, 31500 - 601);
        EXPECT_EQ(events(), index == 1 ? "3" : "6");
        set_raw(index, 31500);
        events();
    }
}

TEST_F(RcMenu, ASumBeyondTheEndIsADirectionToo) {
    add_stick(4, function_pan);
    toggle();
    move_stick(1, 1.0);
    move_stick(4, -1.0);
    EXPECT_EQ(events(), "") << "the sum counts";
    move_stick(4, 1.0);
    EXPECT_EQ(events(), "4");
}

TEST_F(RcMenu, OpeningComesBeforeTheDirectionsOfTheSamePass) {
    move_stick(0, 1.0);
    move_stick(1, 1.0);
    move_stick(2, 1.0);
    EXPECT_EQ(events(), "");
    EXPECT_EQ(events(), "245");
}

TEST_F(RcMenu, ClosingAndOpeningForgetsTheDirections) {
    toggle();
    move_stick(1, 1.0);
    move_stick(2, -1.0);
    EXPECT_EQ(events(), "46");
    EXPECT_EQ(toggle(), "1");
    EXPECT_EQ(state_.horizontal, 0);
    EXPECT_EQ(state_.vertical, 0);
    EXPECT_EQ(toggle(), "246");
}

TEST_F(RcMenu, TheGimbalHoldsStillButForTheApplication) {
    toggle();
    move_stick(1, 1.0);
    move_stick(2, -1.0);
    move_stick(3, 0.5);
    app_ = {0.25, 0.125, 0.0};
    events();
    EXPECT_EQ(state_.rc.pan, 0.0);
    EXPECT_EQ(state_.rc.tilt, 0.0);
    EXPECT_EQ(state_.rc.roll, 0.5) << "roll is no direction";
    EXPECT_EQ(published(2), 0.25);
    EXPECT_EQ(published(3), 0.125);
    EXPECT_EQ(published(4), 0.5);
    toggle();
    EXPECT_EQ(published(2), 1.0);
    EXPECT_EQ(published(3), -0.875);
}

// Smoothing.

class RcSmoothing : public RcPass {
protected:
    RcSmoothing() {
        add_stick(0, function_pan);
        add_stick(1, function_tilt);
        add_stick(2, function_roll);
        add_stick(3, function_smoothing_off);
    }
};

TEST_F(RcSmoothing, WithoutASettingItFollowsAtOnce) {
    move_stick(0, 0.5);
    move_stick(1, -1.0);
    move_stick(2, 1.0);
    app_ = {-0.25, 1.0, 0.5};
    run();
    EXPECT_EQ(state_.rc.pan, 0.5);
    EXPECT_EQ(state_.rc.tilt, -1.0);
    EXPECT_EQ(state_.rc.roll, 1.0);
    EXPECT_EQ(state_.app.pan, -0.25);
    EXPECT_EQ(state_.app.tilt, 1.0);
    EXPECT_EQ(state_.app.roll, 0.5);
    EXPECT_EQ(state_.total.pan, 0.25);
    EXPECT_EQ(state_.total.tilt, 0.0);
    EXPECT_EQ(state_.total.roll, 1.5) << "totals are not clamped";
    EXPECT_EQ(published(2), 0.25);
    EXPECT_EQ(published(3), 0.0);
    EXPECT_EQ(published(4), 1.0) << "published values are";
}

TEST_F(RcSmoothing, EachAxisHasItsOwnStep) {
    config_->rc_pan_smooth = 1;
    config_->rc_tilt_smooth = 2;
    config_->rc_roll_smooth = 5;
    config_->app_pan_smooth = 10;
    config_->app_tilt_smooth = 20;
    config_->app_roll_smooth = 50;
    for (const int index : {0, 1, 2}) {
        move_stick(index, 1.0);
    }
    app_ = {-1.0, -1.0, -1.0};
    run();
    EXPECT_DOUBLE_EQ(state_.rc.pan, 0.01);
    EXPECT_DOUBLE_EQ(state_.rc.tilt, 0.005);
    EXPECT_DOUBLE_EQ(state_.rc.roll, 0.002);
    EXPECT_DOUBLE_EQ(state_.app.pan, -0.001);
    EXPECT_DOUBLE_EQ(state_.app.tilt, -0.0005);
    EXPECT_DOUBLE_EQ(state_.app.roll, -0.0002);
    EXPECT_DOUBLE_EQ(state_.total.pan, 0.009);
    EXPECT_DOUBLE_EQ(published(3), 0.0045);
    EXPECT_DOUBLE_EQ(published(4), 0.0018);
}

TEST_F(RcSmoothing, ASettingOf10Takes1000PassesAndEndsAtTheTarget) {
    config_->rc_pan_smooth = 10;
    move_stick(0, 1.0);
    for (int i = 0; i < 999; ++i) {
        run();
    }
    EXPECT_NEAR(state_.rc.pan, 0.999, 1e-9);
    EXPECT_LT(state_.rc.pan, 1.0);
    run();
    run();
    EXPECT_EQ(state_.rc.pan, 1.0);
    run();
    EXPECT_EQ(state_.rc.pan, 1.0);
    move_stick(0, -1.0);
    run();
    EXPECT_DOUBLE_EQ(state_.rc.pan, 0.999);
}

TEST_F(RcSmoothing, ATargetIsNeverPassed) {
    config_->rc_pan_smooth = 1;
    config_->app_pan_smooth = 1;
    move_stick(0, 0.004);
    app_.pan = -0.0125;
    run();
    EXPECT_DOUBLE_EQ(state_.rc.pan, 0.004);
    EXPECT_DOUBLE_EQ(state_.app.pan, -0.01);
    run();
    EXPECT_DOUBLE_EQ(state_.rc.pan, 0.004);
    EXPECT_EQ(state_.app.pan, -0.0125);
}

TEST_F(RcSmoothing, SmoothedValuesAreNotClamped) {
    add_stick(4, function_pan);
    move_stick(0, 1.0);
    move_stick(4, 1.0);
    app_.pan = 3.0;
    run();
    EXPECT_EQ(state_.rc.pan, 1.0) << "the step is 1";
    EXPECT_EQ(state_.app.pan, 1.0);
    run();
    run();
    EXPECT_EQ(state_.rc.pan, 2.0);
    EXPECT_EQ(state_.app.pan, 3.0);
    EXPECT_EQ(state_.total.pan, 5.0);
    EXPECT_EQ(published(2), 1.0);
    move_stick(0, -1.0);
    move_stick(4, -1.0);
    run();
    EXPECT_EQ(state_.rc.pan, 1.0) << "back from 2, not from 1";
}

TEST_F(RcSmoothing, NegativeSettingsDoNotSmooth) {
    for (const int setting : {-1, -10, std::numeric_limits<int>::min()}) {
        state_.rc = {};
        state_.app = {};
        config_->rc_pan_smooth = setting;
        config_->rc_tilt_smooth = setting;
        config_->rc_roll_smooth = setting;
        config_->app_pan_smooth = setting;
        move_stick(0, 1.0);
        move_stick(1, -1.0);
        move_stick(2, 0.5);
        app_.pan = -0.5;
        run();
        EXPECT_EQ(state_.rc.pan, 1.0);
        EXPECT_EQ(state_.rc.tilt, -1.0);
        EXPECT_EQ(state_.rc.roll, 0.5);
        EXPECT_EQ(state_.app.pan, -0.5);
    }
}

TEST_F(RcSmoothing, Function5SwitchesItOffForTheSticksOnly) {
    config_->rc_pan_smooth = 10;
    config_->rc_tilt_smooth = 10;
    config_->rc_roll_smooth = 10;
    config_->app_pan_smooth = 10;
    app_.pan = 1.0;
    for (const int index : {0, 1, 2}) {
        move_stick(index, 1.0);
    }
    move_stick(3, -1.0);
    run();
    EXPECT_DOUBLE_EQ(state_.rc.pan, 0.001);
    move_stick(3, 0.002);
    run();
    EXPECT_EQ(state_.rc.pan, 1.0) << "seen in the same pass";
    EXPECT_EQ(state_.rc.tilt, 1.0);
    EXPECT_EQ(state_.rc.roll, 1.0);
    EXPECT_DOUBLE_EQ(state_.app.pan, 0.002);
    move_stick(3, 0.0);
    move_stick(0, 0.0);
    run();
    EXPECT_DOUBLE_EQ(state_.rc.pan, 0.999);
}

// Recording.

class RcRecording : public RcPass {
protected:
    RcRecording() {
        add_stick(0, function_record_switch);
        add_stick(1, function_record_toggle);
    }
};

TEST_F(RcRecording, TheSwitchStartsOffItsCentreAndStopsThere) {
    EXPECT_EQ(events(), "");
    for (const double way : {1.0, -1.0, 0.002, -0.002}) {
        move_stick(0, way);
        EXPECT_EQ(events(), "+") << way;
        EXPECT_EQ(events(), "");
        move_stick(0, 0.0);
        EXPECT_EQ(events(), "-") << way;
        EXPECT_EQ(events(), "");
    }
}

TEST_F(RcRecording, AChangeOfSideStartsAgain) {
    move_stick(0, 1.0);
    EXPECT_EQ(events(), "+");
    move_stick(0, 0.5);
    EXPECT_EQ(events(), "");
    move_stick(0, -1.0);
    EXPECT_EQ(events(), "+");
    move_stick(0, 1.0);
    EXPECT_EQ(events(), "+");
    move_stick(0, 0.0);
    EXPECT_EQ(events(), "-");
}

TEST_F(RcRecording, EachNewDeflectionToggles) {
    EXPECT_EQ(events(), "");
    for (const char *expected : {"+", "-", "+", "-"}) {
        move_stick(1, 1.0);
        EXPECT_EQ(events(), expected);
        EXPECT_EQ(events(), "");
        move_stick(1, 0.0);
        EXPECT_EQ(events(), "");
    }
    move_stick(1, -0.5);
    EXPECT_EQ(events(), "+");
    move_stick(1, 0.5);
    EXPECT_EQ(events(), "-") << "the other side is new";
    move_stick(1, -0.5);
    EXPECT_EQ(events(), "+");
}

TEST_F(RcRecording, TheSwitchComesBeforeTheToggle) {
    move_stick(1, 1.0);
    EXPECT_EQ(events(), "+");
    move_stick(1, 0.0);
    EXPECT_EQ(events(), "");
    move_stick(0, 1.0);
    move_stick(1, 1.0);
    EXPECT_EQ(events(), "+-");
    move_stick(0, 0.0);
    move_stick(1, -1.0);
    EXPECT_EQ(events(), "-+");
}

TEST_F(RcRecording, ALostReceiverStops) {
    move_stick(0, 1.0);
    EXPECT_EQ(events(), "+");
    set_update_time(0, 0);
    const RcEvents found = run_as_is();
    ASSERT_EQ(found.record_count, 1U);
    EXPECT_EQ(found.record[0], RecordCommand::stop);
}

TEST_F(RcRecording, MenuAndRecordingInOnePass) {
    add_stick(2, function_menu_switch);
    add_stick(3, function_pan);
    add_stick(4, function_tilt);
    move_stick(2, 1.0);
    EXPECT_EQ(events(), "");
    for (const int index : {0, 1, 3, 4}) {
        move_stick(index, -1.0);
    }
    EXPECT_EQ(events(), "236++");
}
