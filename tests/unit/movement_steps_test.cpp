#include "automove/movement_steps.h"

#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <string>
#include <vector>

constexpr double infinite = std::numeric_limits<double>::infinity();
constexpr double not_a_number = std::numeric_limits<double>::quiet_NaN();
constexpr Movement nothing_set{-1000, -1000, -1000, -1, -1000, -1, -1, 0, 0, -1, 0};

// The steps as text, in order.
static std::vector<std::string> words(const Movement &movement) {
    std::vector<std::string> all;
    for (const MovementStep &step : direct_movement_steps(movement)) {
        if (!step.message.empty()) {
            all.push_back("say" + step.message);
        }
        if (step.is_command) {
            all.push_back(std::string("send ") + step.cmd + "|" + step.param + "|" + step.value +
                          "|" + step.value2 + "|" + step.value3);
        }
        if (step.wait_ms != 0) {
            all.push_back("wait " + std::to_string(step.wait_ms));
        }
    }
    return all;
}

// A movement with only one field set.
template <typename T>
static std::vector<std::string> words_with(T Movement::*field, T value) {
    Movement movement = nothing_set;
    movement.*field = value;
    return words(movement);
}

using Words = std::vector<std::string>;

// One of the words; empty when there are fewer.
static std::string word(const Words &all, size_t index) {
    return index < all.size() ? all[index] : "";
}

TEST(DirectMovement, OfNothingIsNothing) {
    EXPECT_EQ(words(nothing_set), Words{});
    EXPECT_EQ(words_with(&Movement::delay, 5), Words{}) << "the delay is waited by who plays it";
    EXPECT_EQ(words_with(&Movement::hold, 1), Words{});
}

TEST(DirectMovement, DoesAllInOrder) {
    EXPECT_EQ(words({12.3, -5, 0.04, 2.5, -0.5, 0.5, 0.25, 3, 1, 40, 1}),
              (Words{
                  "say\tMoving to pan 12.3 tilt -5.0 roll 0.0\n",
                  "send position|abs|123.0|-50.0|0.4",
                  "wait 1000",
                  "send position|hold|123.0|-50.0|0.4",
                  "say\tSet EV -0.5\n",
                  "send ev|-0.5|||",
                  "wait 100",
                  "say\tSet zoom 2.5\n",
                  "send dzoom|set|250||",
                  "wait 100",
                  "send focus|type|af||",
                  "wait 1000",
                  "say\tSet AF point 0.500000, 0.250000\n",
                  "send focus|point|0.500000|0.250000|",
                  "wait 100",
                  "send focus|type|mf||",
                  "wait 1000",
                  "say\tSet MF 41\n",
                  "send focus|manual|41||",
                  "wait 100",
                  "say\tWaiting 3 seconds\n",
                  "wait 3000",
                  "say\tMaking shot\n",
                  "send shot||||",
              }));
}

TEST(DirectMovement, AllItSendsHasANameAndNothingElseSends) {
    for (const MovementStep &step :
         direct_movement_steps({12.3, -5, 0.04, 2.5, -0.5, 0.5, 0.25, 3, 1, 40, 1})) {
        EXPECT_EQ(step.is_command, step.cmd[0] != '\0');
        EXPECT_NE(step.is_command, !step.message.empty()) << "one or the other";
    }
}

TEST(DirectMovement, APositionNeedsAllThreeAngles) {
    Movement movement = nothing_set;
    movement.pan = movement.tilt = movement.roll = 0;
    EXPECT_EQ(words(movement), (Words{"say\tMoving to pan 0.0 tilt 0.0 roll 0.0\n",
                                      "send position|abs|0.0|0.0|0.0", "wait 1000"}));
    for (const auto field : {&Movement::pan, &Movement::tilt, &Movement::roll}) {
        Movement incomplete = movement;
        incomplete.hold = 1;
        incomplete.*field = -1000;
        EXPECT_EQ(words(incomplete), Words{});
        incomplete.*field = -1000.1;
        EXPECT_EQ(words(incomplete).size(), 4U);
    }
}

TEST(DirectMovement, WithoutAPositionTheRestIsDone) {
    EXPECT_EQ(
        words({-1000, 5, 5, 1, 0, -1, -1, 0, 1, 0, 1}),
        (Words{"say\tSet EV 0.0\n", "send ev|0.0|||", "wait 100", "say\tSet zoom 1.0\n",
               "send dzoom|set|100||", "wait 100", "send focus|type|mf||", "wait 1000",
               "say\tSet MF 1\n", "send focus|manual|1||", "wait 100", "say\tWaiting 1 seconds\n",
               "wait 1000", "say\tMaking shot\n", "send shot||||"}));
}

TEST(DirectMovement, AnyHoldButZeroHolds) {
    for (const int32_t hold : {0, 1, -1, 7}) {
        Movement movement = nothing_set;
        movement.pan = movement.tilt = movement.roll = 1.25;
        movement.hold = hold;
        const Words found = words(movement);
        EXPECT_EQ(found.size(), hold == 0 ? 3U : 4U);
        EXPECT_EQ(found.back(), hold == 0 ? "wait 1000" : "send position|hold|12.5|12.5|12.5");
    }
}

TEST(DirectMovement, PositionsAreTenthsWithADecimal) {
    Movement movement = nothing_set;
    movement.pan = -0.004;
    movement.tilt = 179.99;
    movement.roll = 1234.56;
    EXPECT_EQ(word(words(movement), 1), "send position|abs|-0.0|1799.9|12345.6");
}

TEST(DirectMovement, ExposureFromMinusThreeToThree) {
    for (const double ev : {-3.0, -2.96, 0.0, 0.3, 3.0}) {
        EXPECT_EQ(words_with(&Movement::ev, ev).size(), 3U) << ev;
    }
    for (const double ev :
         {-3.1, -3.0000001, 3.0000001, 3.1, -1000.0, infinite, -infinite, not_a_number}) {
        EXPECT_EQ(words_with(&Movement::ev, ev), Words{}) << ev;
    }
    EXPECT_EQ(words_with(&Movement::ev, 0.25),
              (Words{"say\tSet EV 0.2\n", "send ev|0.2|||", "wait 100"}));
    EXPECT_EQ(word(words_with(&Movement::ev, -3.0), 1), "send ev|-3.0|||");
}

TEST(DirectMovement, ZoomFromOneToEight) {
    for (const double zoom : {1.0, 1.001, 7.9, 8.0}) {
        EXPECT_EQ(words_with(&Movement::zoom, zoom).size(), 3U) << zoom;
    }
    for (const double zoom : {0.99, 0.0, -1.0, 8.01, 1e300, infinite, -infinite, not_a_number}) {
        EXPECT_EQ(words_with(&Movement::zoom, zoom), Words{}) << zoom;
    }
}

TEST(DirectMovement, ZoomIsCutToAWholeNumber) {
    const std::pair<double, const char *> cases[] = {
        {1.0, "100"},  {1.006, "100"}, {2.5, "250"}, {2.3, "229"}, // 2.3 * 100 is below 230
        {4.35, "434"}, {7.999, "799"}, {8.0, "800"},
    };
    for (const auto &[zoom, text] : cases) {
        EXPECT_EQ(word(words_with(&Movement::zoom, zoom), 1),
                  std::string("send dzoom|set|") + text + "||");
    }
    EXPECT_EQ(word(words_with(&Movement::zoom, 2.36), 0), "say\tSet zoom 2.4\n");
}

TEST(DirectMovement, AutoFocusNeedsAPointInsideThePicture) {
    const auto with_point = [](double x, double y) {
        Movement movement = nothing_set;
        movement.afx = x;
        movement.afy = y;
        return words(movement);
    };
    for (const double x : {0.0, 0.5, 1.0}) {
        for (const double y : {0.0, 0.5, 1.0}) {
            EXPECT_EQ(with_point(x, y).size(), 5U) << x << " " << y;
        }
        for (const double bad : {-0.001, 1.001, -1.0, infinite, -infinite, not_a_number}) {
            EXPECT_EQ(with_point(x, bad), Words{}) << x << " " << bad;
            EXPECT_EQ(with_point(bad, x), Words{}) << bad << " " << x;
        }
    }
    EXPECT_EQ(with_point(0.1234567, 1),
              (Words{"send focus|type|af||", "wait 1000", "say\tSet AF point 0.123457, 1.000000\n",
                     "send focus|point|0.123457|1.000000|", "wait 100"}));
}

TEST(DirectMovement, ManualFocusFromZeroToOneHundredIsSentPlusOne) {
    const std::pair<double, const char *> cases[] = {{0.0, "1"},   {0.6, "2"},    {41.4, "42"},
                                                     {41.6, "43"}, {99.0, "100"}, {100.0, "101"}};
    for (const auto &[mf, text] : cases) {
        EXPECT_EQ(
            words_with(&Movement::mf, mf),
            (Words{"send focus|type|mf||", "wait 1000", std::string("say\tSet MF ") + text + "\n",
                   std::string("send focus|manual|") + text + "||", "wait 100"}));
    }
    for (const double mf : {-0.001, -1.0, 100.001, infinite, -infinite, not_a_number}) {
        EXPECT_EQ(words_with(&Movement::mf, mf), Words{}) << mf;
    }
}

TEST(DirectMovement, AReplayIsTheSame) {
    const Movement movement{1, 2, 3, 4, 1, 0.5, 0.5, 2, 1, 40, 1};
    const Words first = words(movement);
    EXPECT_EQ(words(movement), first);
    EXPECT_EQ(words(movement), first);
    EXPECT_EQ(movement.mf, 40);
}

TEST(DirectMovement, AShotWaitsForTheDelayOrASecond) {
    const std::pair<int32_t, const char *> cases[] = {
        {-5, "1"},
        {0, "1"},
        {1, "1"},
        {2, "2"},
        {60, "60"},
        {std::numeric_limits<int32_t>::min(), "1"},
        {std::numeric_limits<int32_t>::max(), "2147483647"},
    };
    for (const auto &[delay, seconds] : cases) {
        for (const int32_t shot : {1, -1, 9}) {
            Movement movement = nothing_set;
            movement.delay = delay;
            movement.shot = shot;
            EXPECT_EQ(words(movement), (Words{std::string("say\tWaiting ") + seconds + " seconds\n",
                                              std::string("wait ") + seconds + "000",
                                              "say\tMaking shot\n", "send shot||||"}));
        }
    }
}

TEST(DirectMovement, HugeAnglesArePrintedWhole) {
    Movement movement = nothing_set;
    movement.pan = movement.tilt = movement.roll = -1e300;
    const std::string digits = std::to_string(1e300);
    const std::string number = "-" + digits.substr(0, digits.size() - 5); // one decimal
    const Words found = words(movement);
    ASSERT_EQ(found.size(), 3U);
    EXPECT_EQ(found[0],
              "say\tMoving to pan " + number + " tilt " + number + " roll " + number + "\n");
    EXPECT_EQ(found[1].size(), strlen("send position|abs") + 3 * (1 + number.size() + 1));
    movement.pan = movement.tilt = movement.roll = infinite;
    EXPECT_EQ(word(words(movement), 1), "send position|abs|inf|inf|inf");
}

// The speeds toward a target of the given errors.
static SmoothPass pass_for(double pan, double tilt, double roll, int speed) {
    Movement movement = nothing_set;
    movement.pan = pan;
    movement.tilt = tilt;
    movement.roll = roll;
    return smooth_movement_pass(movement, {0, 0, 0}, speed);
}

static void expect_speeds(const SmoothPass &pass, double pan, double tilt, double roll) {
    EXPECT_DOUBLE_EQ(pass.speeds.pan, pan);
    EXPECT_DOUBLE_EQ(pass.speeds.tilt, tilt);
    EXPECT_DOUBLE_EQ(pass.speeds.roll, roll);
}

// Step and threshold of a speed setting.
struct SpeedCase {
    int setting;
    double step;
    double threshold;
};

constexpr SpeedCase speeds[] = {
    {1, 0.005, 0.8}, {2, 0.01, 0.8},  {3, 0.05, 2.5},  {4, 0.1, 5.0},    {5, 0.2, 5.0},
    {6, 0.5, 5.0},   {0, 0.001, 0.8}, {7, 0.001, 0.8}, {-1, 0.001, 0.8}, {100, 0.001, 0.8},
};

TEST(SmoothMovement, EachSpeedHasItsStepAndThreshold) {
    for (const auto &[setting, step, threshold] : speeds) {
        SCOPED_TRACE(setting);
        expect_speeds(pass_for(90, 90, 90, setting), -step, step, -step);
        expect_speeds(pass_for(-90, -90, -90, setting), step, -step, step);
        const double inside = threshold - 0.001;
        expect_speeds(pass_for(inside, inside, inside, setting), 0, 0, 0);
        expect_speeds(pass_for(-inside, -inside, -inside, setting), 0, 0, 0);
        const double outside = threshold + 0.001;
        expect_speeds(pass_for(outside, outside, outside, setting), -step, step, -step);
        expect_speeds(pass_for(-outside, -outside, -outside, setting), step, -step, step);
        EXPECT_TRUE(pass_for(inside, inside, inside, setting).is_arrived);
        EXPECT_FALSE(pass_for(outside, 0, 0, setting).is_arrived);
    }
}

TEST(SmoothMovement, OneAxisAtATime) {
    expect_speeds(pass_for(10, 0, 0, 4), -0.1, 0, 0);
    expect_speeds(pass_for(-10, 0, 0, 4), 0.1, 0, 0);
    expect_speeds(pass_for(0, 10, 0, 4), 0, 0.1, 0);
    expect_speeds(pass_for(0, -10, 0, 4), 0, -0.1, 0);
    expect_speeds(pass_for(0, 0, 10, 4), 0, 0, -0.1);
    expect_speeds(pass_for(0, 0, -10, 4), 0, 0, 0.1);
}

TEST(SmoothMovement, TiltAndRollAreSlowerTheFartherThePan) {
    const SmoothPass pass = pass_for(10, 5, 0, 4);
    expect_speeds(pass, -0.1, 0.1 / 2, 0);
    EXPECT_FALSE(pass.is_arrived);
    expect_speeds(pass_for(30, 10, 20, 6), -0.5, 0.5 / 3, -0.5 / 1.5);
    expect_speeds(pass_for(30, -10, -20, 6), -0.5, -0.5 / 3, 0.5 / 1.5);
    expect_speeds(pass_for(-30, 10, 20, 6), 0.5, 0.5 / 3, -0.5 / 1.5);
}

TEST(SmoothMovement, TheRatioIsOneToFive) {
    expect_speeds(pass_for(24, 6, 6, 6), -0.5, 0.5 / 4, -0.5 / 4);
    expect_speeds(pass_for(30, 6, 6, 6), -0.5, 0.5 / 5, -0.5 / 5);
    expect_speeds(pass_for(36, 6, 6, 6), -0.5, 0.5 / 5, -0.5 / 5);
    expect_speeds(pass_for(170, 6, -6, 6), -0.5, 0.5 / 5, 0.5 / 5);
    expect_speeds(pass_for(6, 6, 6, 6), -0.5, 0.5, -0.5);
    expect_speeds(pass_for(6, 12, -60, 6), -0.5, 0.5, 0.5);
}

TEST(SmoothMovement, AnErrorOfTheThresholdMovesAndHasArrived) {
    for (const auto &[setting, step, threshold] : speeds) {
        SCOPED_TRACE(setting);
        const SmoothPass above = pass_for(threshold, threshold, threshold, setting);
        expect_speeds(above, -step, step, -step);
        EXPECT_TRUE(above.is_arrived);
        const SmoothPass below = pass_for(-threshold, -threshold, -threshold, setting);
        expect_speeds(below, 0, 0, 0);
        EXPECT_TRUE(below.is_arrived);
    }
}

TEST(SmoothMovement, AllThreeMustArrive) {
    for (const double error : {5.01, -5.01}) {
        EXPECT_FALSE(pass_for(error, 0, 0, 4).is_arrived);
        EXPECT_FALSE(pass_for(0, error, 0, 4).is_arrived);
        EXPECT_FALSE(pass_for(0, 0, error, 4).is_arrived);
    }
    EXPECT_TRUE(pass_for(4.99, -4.99, 4.99, 4).is_arrived);
}

TEST(SmoothMovement, AtTheTargetAllStands) {
    for (const auto &[setting, step, threshold] : speeds) {
        const SmoothPass pass = pass_for(0, 0, 0, setting);
        expect_speeds(pass, 0, 0, 0);
        EXPECT_TRUE(pass.is_arrived);
    }
}

TEST(SmoothMovement, TheErrorIsTargetLessPosition) {
    Movement movement = nothing_set;
    movement.pan = 10;
    movement.tilt = -10;
    movement.roll = 30;
    expect_speeds(smooth_movement_pass(movement, {20, -20, 60}, 6), 0.5, 0.5, 0.5);
    expect_speeds(smooth_movement_pass(movement, {-20, 5, 20}, 6), -0.5, -0.5 / 2, -0.5 / 3);
    EXPECT_TRUE(smooth_movement_pass(movement, {12, -12, 32}, 6).is_arrived);
}

TEST(SmoothMovement, AnAngleThatIsNotSetIsATarget) {
    expect_speeds(smooth_movement_pass(nothing_set, {0, 0, 0}, 6), 0.5, -0.5, 0.5);
    EXPECT_TRUE(smooth_movement_pass(nothing_set, {-1000, -1000, -1000}, 6).is_arrived);
}

// The speeds of the same pass, computed in another way: by cases of the signs and the quotient.
static std::vector<double> model(double pan, double tilt, double roll, const SpeedCase &speed) {
    const auto shared = [&](double other) {
        if (std::isnan(pan) || std::isnan(other) || std::fabs(pan) <= std::fabs(other)) {
            return speed.step;
        }
        if (std::fabs(pan) >= 5 * std::fabs(other)) {
            return speed.step / 5;
        }
        return speed.step * std::fabs(other) / std::fabs(pan);
    };
    const auto side = [&](double error) {
        if (std::isnan(error) || (error < speed.threshold && error >= -speed.threshold)) {
            return 0;
        }
        return error > 0 ? 1 : -1;
    };
    return {-side(pan) * speed.step, side(tilt) * shared(tilt), -side(roll) * shared(roll)};
}

static void expect_as_modelled(double pan, double tilt, double roll, const SpeedCase &speed) {
    const SmoothPass pass = pass_for(pan, tilt, roll, speed.setting);
    const std::vector<double> wanted = model(pan, tilt, roll, speed);
    const double found[] = {pass.speeds.pan, pass.speeds.tilt, pass.speeds.roll};
    for (size_t i = 0; i < 3; ++i) {
        ASSERT_NEAR(found[i], wanted[i], 1e-12)
            << pan << " " << tilt << " " << roll << " speed " << speed.setting << " axis " << i;
    }
    bool is_arrived = true;
    for (const double error : {pan, tilt, roll}) {
        is_arrived = is_arrived && error <= speed.threshold && error >= -speed.threshold;
    }
    ASSERT_EQ(pass.is_arrived, is_arrived) << pan << " " << tilt << " " << roll;
}

TEST(SmoothMovement, IsWhatAModelMakesOfIt) {
    std::mt19937 random(5); // NOLINT: the same numbers each time
    std::uniform_real_distribution<double> far(-200, 200);
    std::uniform_real_distribution<double> near(-8, 8);
    for (int i = 0; i < 20000; ++i) {
        const auto error = [&] { return random() % 2 == 0 ? far(random) : near(random); };
        const SpeedCase &speed = speeds[random() % std::size(speeds)];
        ASSERT_NO_FATAL_FAILURE(expect_as_modelled(error(), error(), error(), speed));
    }
}

TEST(SmoothMovement, StrangeErrorsGiveOrdinarySpeeds) {
    const double strange[] = {0.0,    -0.0,  5.0,    -5.0,     6.0,       -6.0,
                              1e-320, 1e300, -1e300, infinite, -infinite, not_a_number};
    for (const SpeedCase &speed : speeds) {
        for (const double pan : strange) {
            for (const double tilt : strange) {
                for (const double roll : strange) {
                    const GimbalValues found = pass_for(pan, tilt, roll, speed.setting).speeds;
                    for (const double value : {found.pan, found.tilt, found.roll}) {
                        ASSERT_LE(std::fabs(value), speed.step);
                    }
                    ASSERT_NO_FATAL_FAILURE(expect_as_modelled(pan, tilt, roll, speed));
                }
            }
        }
    }
}

TEST(MovementDistance, IsTheSumOfTheErrors) {
    Movement movement = nothing_set;
    movement.pan = 10;
    movement.tilt = -20;
    movement.roll = 30;
    EXPECT_EQ(movement_distance(movement, {10, -20, 30}), 0);
    EXPECT_EQ(movement_distance(movement, {11, -20, 30}), 1);
    EXPECT_EQ(movement_distance(movement, {10, -22, 30}), 2);
    EXPECT_EQ(movement_distance(movement, {10, -20, 26}), 4);
    EXPECT_EQ(movement_distance(movement, {9, -18, 34}), 7);
    EXPECT_EQ(movement_distance(movement, {0, 0, 0}), 60);
    EXPECT_EQ(movement_distance(nothing_set, {0, 0, 0}), 3000);
}

TEST(MovementDistance, OfNoNumberIsNone) {
    Movement movement{};
    movement.roll = not_a_number;
    EXPECT_TRUE(std::isnan(movement_distance(movement, {1, 2, 3})));
    movement.roll = infinite;
    EXPECT_EQ(movement_distance(movement, {1, 2, 3}), infinite);
}

// The runner ends this wait when something changes, and no other.
TEST(DirectMovement, MarksItsDelayAndNoOtherWait) {
    int delays = 0;
    for (const MovementStep &step :
         direct_movement_steps({12.3, -5, 0.04, 2.5, -0.5, 0.5, 0.25, 3, 1, 40, 1})) {
        delays += step.is_delay ? 1 : 0;
        EXPECT_EQ(step.is_delay, step.wait_ms == 3000);
    }
    EXPECT_EQ(delays, 1);
}
