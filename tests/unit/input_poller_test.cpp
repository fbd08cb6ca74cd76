#include "core/input_poller.h"

#include <gtest/gtest.h>

constexpr int low = 0;
constexpr int high = 1;
constexpr int failed = -31;

TEST(InputDebounce, TakesMoreThan300Milliseconds) {
    const InputState state{0, 0, 1000};
    EXPECT_FALSE(input_is_due(state, 1000));
    EXPECT_FALSE(input_is_due(state, 1300));
    EXPECT_TRUE(input_is_due(state, 1301));
}

TEST(InputDebounce, SurvivesTheWrapOfTheClock) {
    const InputState state{0, 0, 0xFFFFFFFFU};
    EXPECT_FALSE(input_is_due(state, 299));
    EXPECT_TRUE(input_is_due(state, 300));
}

TEST(InputDebounce, IsOverWhenTheClockIsSetBack) {
    const InputState state{0, 0, 1000};
    EXPECT_TRUE(input_is_due(state, 999));
}

TEST(RecordingTrigger, RecordsWhileLow) {
    EXPECT_EQ(examine_trigger(low, false), InputAction::start_recording);
    EXPECT_EQ(examine_trigger(low, true), InputAction::none);
    EXPECT_EQ(examine_trigger(high, true), InputAction::stop_recording);
    EXPECT_EQ(examine_trigger(high, false), InputAction::none);
}

TEST(RecordingTrigger, AFailedReadIsNotLow) {
    EXPECT_EQ(examine_trigger(failed, true), InputAction::stop_recording);
    EXPECT_EQ(examine_trigger(failed, false), InputAction::none);
}

TEST(RecordingButton, TogglesOnEachPress) {
    InputState state{0, 0, 0};
    EXPECT_EQ(examine_button(state, low, false), InputAction::start_recording);
    EXPECT_EQ(examine_button(state, low, true), InputAction::none);
    EXPECT_EQ(examine_button(state, high, true), InputAction::none);
    EXPECT_EQ(examine_button(state, low, true), InputAction::stop_recording);
    EXPECT_EQ(examine_button(state, failed, false), InputAction::none);
    EXPECT_EQ(examine_button(state, low, false), InputAction::start_recording);
}

TEST(RecordingButton, HeldAtStartFiresOnce) {
    InputState state{low, 0, 0};
    EXPECT_EQ(examine_button(state, low, false), InputAction::start_recording);
    EXPECT_EQ(examine_button(state, low, true), InputAction::none);
}

TEST(RecordingButton, ReleasedAtStartFiresOnTheFirstPress) {
    InputState state{high, 0, 0};
    EXPECT_EQ(examine_button(state, high, false), InputAction::none);
    EXPECT_EQ(examine_button(state, low, false), InputAction::start_recording);
}

TEST(RecordingButton, ReleasedAtStartAndPressedBeforeTheFirstLookIsMissed) {
    InputState state{high, 0, 0};
    EXPECT_EQ(examine_button(state, low, false), InputAction::none);
}

TEST(ShotButton, FiresOnEachPress) {
    InputState state{0, high, 0};
    EXPECT_EQ(examine_shot(state, high), InputAction::none);
    EXPECT_EQ(examine_shot(state, low), InputAction::shot);
    EXPECT_EQ(examine_shot(state, low), InputAction::none);
    EXPECT_EQ(examine_shot(state, high), InputAction::none);
    EXPECT_EQ(examine_shot(state, low), InputAction::shot);
    EXPECT_EQ(state.button, 0);
}
