#include "base/bytes.h"
#include "base/shared_numbers.h"
#include "rc_pass_fixture.h"

#include <array>
#include <atomic>
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <string>
#include <thread>

// Receivers.

class RcReceiver : public RcPass, public ::testing::WithParamInterface<int> {
protected:
    RcReceiver() {
        state_ = {};
        bytes_[0] = 0;
        bytes_[1] = 0;
        strcpy(config_->rc1_channels, R"([{"ch":2,"min":111}])");
        strcpy(config_->rc2_channels, R"([{"ch":2,"min":222}])");
    }
    int mine() {
        return GetParam();
    }
    unsigned state_byte(int receiver) {
        return bytes_[static_cast<size_t>(receiver)];
    }
    unsigned min_of(int receiver) {
        return get_u16(channel(1 + 16 * receiver) + 2);
    }
    std::string name() {
        return mine() == 0 ? "RC1" : "RC2";
    }
};
INSTANTIATE_TEST_SUITE_P(Both, RcReceiver, ::testing::Values(0, 1));

TEST_P(RcReceiver, IsAbsentUntilItsUpdateTimeIsThere) {
    EXPECT_EQ(said_by_pass(), "");
    EXPECT_EQ(state_byte(0), 0U);
    EXPECT_EQ(state_byte(1), 0U);
    EXPECT_FALSE(state_.present[mine()]);
    EXPECT_EQ(min_of(mine()), 0U);
}

TEST_P(RcReceiver, IsFoundAndItsChannelsAreLoaded) {
    set_update_time(mine(), test_time);
    EXPECT_EQ(said_by_pass(), name() + " found\n");
    EXPECT_EQ(state_byte(mine()), 1U);
    EXPECT_TRUE(state_.present[mine()]);
    EXPECT_EQ(min_of(mine()), mine() == 0 ? 111U : 222U);
    EXPECT_EQ(state_byte(1 - mine()), 0U);
    EXPECT_FALSE(state_.present[1 - mine()]);
    EXPECT_EQ(min_of(1 - mine()), 0U);
    EXPECT_EQ(update_time(mine()), test_time);
    put_u16(channel(1 + 16 * mine()) + 2, 5);
    EXPECT_EQ(said_by_pass(), "");
    EXPECT_EQ(min_of(mine()), 5U) << "loaded once only";
}

TEST_P(RcReceiver, IsLostAfter301Milliseconds) {
    set_update_time(mine(), test_time);
    run_as_is();
    const uint32_t begin = test_time;
    test_time = begin + 300;
    EXPECT_EQ(said_by_pass(), "");
    EXPECT_EQ(update_time(mine()), begin);
    EXPECT_EQ(state_byte(mine()), 1U);
    test_time = begin + 301;
    EXPECT_EQ(said_by_pass(), name() + " lost\n");
    EXPECT_EQ(update_time(mine()), 0U);
    EXPECT_EQ(state_byte(mine()), 0U);
    EXPECT_FALSE(state_.present[mine()]);
    EXPECT_EQ(said_by_pass(), "");
}

TEST_P(RcReceiver, IsFoundAgainWithItsChannels) {
    set_update_time(mine(), test_time);
    run_as_is();
    set_update_time(mine(), 0);
    EXPECT_EQ(said_by_pass(), name() + " lost\n");
    put_u16(channel(1 + 16 * mine()) + 2, 5);
    set_update_time(mine(), ++test_time);
    EXPECT_EQ(said_by_pass(), name() + " found\n");
    EXPECT_EQ(min_of(mine()), mine() == 0 ? 111U : 222U);
}

TEST_P(RcReceiver, AgesAreRightAcrossTheClocksWrap) {
    test_time = 0xFFFFFF00;
    set_update_time(mine(), test_time);
    run_as_is();
    test_time += 300;
    ASSERT_LT(test_time, 300U);
    EXPECT_EQ(said_by_pass(), "");
    ++test_time;
    EXPECT_EQ(said_by_pass(), name() + " lost\n");
}

TEST_P(RcReceiver, AStaleBlockGivesFoundAndLostInOnePass) {
    set_update_time(mine(), test_time - 301);
    bytes_[static_cast<size_t>(mine())] = rc_calibrating;
    EXPECT_EQ(said_by_pass(), name() + " found\n" + name() + " lost\n");
    EXPECT_EQ(update_time(mine()), 0U);
    EXPECT_EQ(state_byte(mine()), 0U);
    EXPECT_FALSE(state_.present[mine()]);
    EXPECT_EQ(min_of(mine()), mine() == 0 ? 111U : 222U);
}

TEST_P(RcReceiver, LosingItClearsItsOwnRawAndNormalisedValues) {
    set_update_time(0, test_time);
    set_update_time(1, test_time);
    run_as_is();
    for (int i = 0; i < 32; ++i) {
        assign(i, {.function = 6});
        set_raw(i, 1750);
    }
    run_as_is();
    ASSERT_EQ(value(0), 0.5);
    ASSERT_EQ(value(31), 0.5);
    set_update_time(mine(), 0);
    const Bytes before = bytes_;
    EXPECT_EQ(said_by_pass(), name() + " lost\n");
    for (int i = 0; i < 32; ++i) {
        const bool is_lost = i / 16 == mine();
        EXPECT_EQ(get_u16(channel(i)), is_lost ? 0 : 1750) << i;
        EXPECT_EQ(value(i), is_lost ? 0.0 : 0.5) << i;
        EXPECT_EQ(memcmp(channel(i) + 2, &before[16 + static_cast<size_t>(i) * 32 + 2], 14), 0);
        EXPECT_EQ(memcmp(channel(i) + 24, &before[16 + static_cast<size_t>(i) * 32 + 24], 8), 0);
    }
    EXPECT_EQ(published(6), 1.0);
    EXPECT_EQ(published_raw(6), mine() == 0 ? 1750U : 0U) << "the last channel's";
}

TEST_P(RcReceiver, AStateOf0WithAnUpdateTimeBecomes1) {
    set_update_time(mine(), test_time);
    run_as_is();
    bytes_[static_cast<size_t>(mine())] = 0;
    EXPECT_EQ(said_by_pass(), "");
    EXPECT_EQ(state_byte(mine()), 1U);
    EXPECT_EQ(state_byte(1 - mine()), 0U);
}

TEST_P(RcReceiver, CalibrationGoesOnWhileItIsThereAndEndsWhenItIsFound) {
    set_update_time(mine(), test_time);
    run_as_is();
    bytes_[static_cast<size_t>(mine())] = rc_calibrating;
    run_as_is();
    EXPECT_EQ(state_byte(mine()), 2U);
    state_.present[mine()] = false;
    run_as_is();
    EXPECT_EQ(state_byte(mine()), 1U);
}

static uint8_t *racing_block;

// A clock that advances; right after it is read, both readers update.
static uint32_t racing_clock() {
    const uint32_t now = test_time;
    put_u32(racing_block + 4, now + 1);
    put_u32(racing_block + 8, now + 1);
    test_time += 2;
    return now;
}

TEST_P(RcReceiver, AnUpdateBetweenTwoReadsIsNotStale) {
    racing_block = block();
    set_update_time(mine(), test_time);
    run_as_is();
    set_update_time(1 - mine(), 0);
    run_rc_pass(block(), *config_, racing_clock, app_, state_);
    EXPECT_TRUE(state_.present[mine()]);
    EXPECT_NE(update_time(mine()), 0U);
    ::testing::internal::CaptureStderr();
    run_rc_pass(block(), *config_, racing_clock, app_, state_);
    EXPECT_TRUE(state_.present[mine()]);
    EXPECT_EQ(::testing::internal::GetCapturedStderr().find("lost"), std::string::npos);
}

// Values of channels.

TEST_F(RcPass, TheEndsTheCentreAndTheDeadBand) {
    assign(3, {.function = 7, .dead_band = 10});
    const struct {
        int raw;
        double value;
    } cases[] = {{1500, 0.0},          {2000, 1.0},        {1000, -1.0},
                 {1505, 0.0},          {1510, 0.0},        {1490, 0.0},
                 {1511, 1.0 / 490},    {1489, -1.0 / 490}, {1755, 245.0 / 490},
                 {1245, -245.0 / 490}, {2001, 1.0},        {999, -1.0},
                 {65535, 1.0},         {1, -1.0},          {1999, 489.0 / 490},
                 {1001, -489.0 / 490}};
    for (const auto &expected : cases) {
        set_raw(3, expected.raw);
        run();
        EXPECT_DOUBLE_EQ(value(3), expected.value) << expected.raw;
        EXPECT_DOUBLE_EQ(published(7), expected.value) << expected.raw;
        EXPECT_EQ(published_raw(7), static_cast<unsigned>(expected.raw));
    }
}

TEST_F(RcPass, TheTwoHalvesHaveTheirOwnScales) {
    assign(0, {.function = 7, .min = 1400, .max = 2500});
    set_raw(0, 1600);
    run();
    EXPECT_DOUBLE_EQ(value(0), 0.1);
    set_raw(0, 1490);
    run();
    EXPECT_DOUBLE_EQ(value(0), -0.1);
}

TEST_F(RcPass, AnInvertedChannel) {
    assign(0, {.function = 7, .is_inverted = true});
    set_raw(0, 1750);
    run();
    EXPECT_DOUBLE_EQ(value(0), -0.5);
    channel(0)[8] = 0x80;
    set_raw(0, 1250);
    run();
    EXPECT_DOUBLE_EQ(published(7), 0.5);
}

TEST_F(RcPass, LimitsScaleFrom1To100) {
    for (const int limit : {1, 2, 50, 99, 100}) {
        assign(0, {.function = 7, .limit = limit});
        for (const int raw : {2000, 1000}) {
            set_raw(0, raw);
            run();
            EXPECT_DOUBLE_EQ(value(0), (raw == 2000 ? 0.01 : -0.01) * limit) << limit;
        }
        EXPECT_EQ(get_u16(channel(0) + 28), limit);
    }
}

TEST_F(RcPass, OtherLimitsBecome100) {
    for (const int limit : {0, 101, 150, 256, 306, 65535}) {
        assign(0, {.function = 7, .limit = limit});
        set_raw(0, 1750);
        run();
        EXPECT_DOUBLE_EQ(value(0), 0.5) << limit;
        EXPECT_EQ(get_u16(channel(0) + 28), 100) << limit;
    }
}

TEST_F(RcPass, TheLimitScalesBeforeTheClamp) {
    assign(0, {.function = 7, .limit = 50});
    set_raw(0, 2250); // 1.5 times full deflection
    run();
    EXPECT_DOUBLE_EQ(value(0), 0.75);
    set_raw(0, 100); // 2.8 times full deflection
    run();
    EXPECT_EQ(value(0), -1.0);
}

TEST_F(RcPass, AChannelWithoutSignalKeepsItsValue) {
    assign(0, {.function = 7, .limit = 0});
    store_whole(channel(0) + 16, 0.375);
    run();
    EXPECT_EQ(value(0), 0.375);
    EXPECT_EQ(get_u16(channel(0) + 28), 0) << "it is not looked at";
    EXPECT_EQ(published(7), 0.0);
}

TEST_F(RcPass, AWayOfNoLengthGives0) {
    assign(0, {.function = 7, .max = 1500});
    assign(1, {.function = 7, .min = 1500});
    assign(2, {.function = 7, .min = 1490, .max = 1510, .dead_band = 10});
    assign(3, {.function = 7, .min = 1490, .max = 1510, .dead_band = 10});
    set_raw(0, 1800);
    set_raw(1, 1200);
    set_raw(2, 1800);
    set_raw(3, 1200);
    for (int i = 0; i < 4; ++i) {
        store_whole(channel(i) + 16, 0.25);
    }
    run();
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(value(i), 0.0) << i;
    }
    EXPECT_EQ(published(7), 0.0);
}

TEST_F(RcPass, AWayOfNegativeLengthTurnsTheValueRound) {
    assign(0, {.function = 7, .min = 1480, .max = 1520, .dead_band = 40});
    set_raw(0, 1550); // 10 beyond the dead band, and -20 from there to the end
    run();
    EXPECT_DOUBLE_EQ(value(0), -0.5);
    set_raw(0, 1450);
    run();
    EXPECT_DOUBLE_EQ(value(0), 0.5);
}

TEST_F(RcPass, SumsOfSeveralChannels) {
    for (const int i : {0, 5, 16, 31}) {
        assign(i, {.function = 8});
    }
    set_raw(0, 1600);
    set_raw(5, 1700);
    set_raw(16, 1400);
    set_raw(31, 1650);
    run();
    EXPECT_DOUBLE_EQ(published(8), 0.2 + 0.4 - 0.2 + 0.3);
    EXPECT_EQ(published_raw(8), 1650U);
    set_raw(31, 2000);
    run();
    EXPECT_EQ(published(8), 1.0) << "published values are clamped";
    set_raw(0, 1000);
    set_raw(5, 1000);
    set_raw(16, 1000);
    run();
    EXPECT_EQ(published(8), -1.0);
    set_raw(5, 0);
    set_raw(16, 0);
    run();
    EXPECT_DOUBLE_EQ(published(8), 0.0) << "sums begin at 0 in each pass";
}

TEST_F(RcPass, ALaterChannelOverwritesTheRawValueEvenWith0) {
    assign(2, {.function = 8});
    assign(9, {.function = 8});
    set_raw(2, 1600);
    set_raw(9, 1300);
    run();
    EXPECT_EQ(published_raw(8), 1300U);
    set_raw(9, 0);
    run();
    EXPECT_EQ(published_raw(8), 0U);
    EXPECT_DOUBLE_EQ(published(8), 0.2);
}

TEST_F(RcPass, RawValuesOfAllFunctionsArePublishedAnew) {
    memset(block() + 1408, 0x5A, 96);
    for (int i = 0; i < 32; ++i) {
        assign(i, {.function = i + 14});
        set_raw(i, 0x1100 + i);
    }
    run();
    for (int f = 0; f < 46; ++f) {
        EXPECT_EQ(published_raw(f), f < 14 ? 0U : 0x1100U + static_cast<unsigned>(f) - 14) << f;
    }
    EXPECT_EQ(get_u32(block() + 1500), 0x5A5A5A5AU);
}

TEST_F(RcPass, ChannelsWithoutAFunctionAreNotSummed) {
    for (int i = 0; i < 32; ++i) {
        assign(i, {.function = 0});
        set_raw(i, 1700 + i);
    }
    run();
    EXPECT_EQ(published(0), 0.0);
    EXPECT_EQ(published_raw(0), 1731U);
    EXPECT_DOUBLE_EQ(value(0), 0.4);
}

TEST_F(RcPass, FunctionsThatDoNotExistAreOnlyEvaluated) {
    const Bytes tail(bytes_.begin() + 1500, bytes_.end());
    for (const int function : {46, 47, 100, 255}) {
        assign(0, {.function = function});
        set_raw(0, 1750);
        store_whole(channel(0) + 16, 0.0);
        run();
        EXPECT_DOUBLE_EQ(value(0), 0.5);
        for (int f = 0; f < 46; ++f) {
            EXPECT_EQ(published(f), 0.0);
            EXPECT_EQ(published_raw(f), 0U);
        }
    }
    EXPECT_EQ(Bytes(bytes_.begin() + 1500, bytes_.end()), tail);
}

TEST_F(RcPass, Function45IsTheLast) {
    assign(31, {.function = 45});
    set_raw(31, 1750);
    run();
    EXPECT_DOUBLE_EQ(published(45), 0.5);
    EXPECT_EQ(published_raw(45), 1750U);
}

TEST_F(RcPass, PresenceAndEnableFlagDoNotMatter) {
    state_ = {};
    bytes_[0] = 0;
    bytes_[1] = 0;
    for (const unsigned flag : {0U, 1U, 255U}) {
        for (const int i : {0, 20}) {
            assign(i, {.function = 8});
            channel(i)[30] = static_cast<uint8_t>(flag);
            set_raw(i, 1600);
        }
        run_as_is();
        EXPECT_DOUBLE_EQ(published(8), 0.4);
        EXPECT_EQ(channel(0)[30], flag);
    }
    EXPECT_FALSE(state_.present[0] || state_.present[1]);
}

// Calibration.

class RcCalibration : public RcPass {
protected:
    RcCalibration() {
        bytes_[1] = rc_calibrating;
        assign(16, {.function = 7, .min = 1500, .max = 1500});
    }
    std::array<int, 3> calibrate(int raw) {
        set_raw(16, raw);
        run();
        return {get_u16(channel(16) + 2), get_u16(channel(16) + 6), get_u16(channel(16) + 4)};
    }
    using Three = std::array<int, 3>;
};

TEST_F(RcCalibration, EachRawValueWidensAndTheCentreIsMidway) {
    EXPECT_EQ(calibrate(1500), (Three{1500, 1500, 1500}));
    EXPECT_EQ(calibrate(1601), (Three{1500, 1550, 1601}));
    EXPECT_EQ(calibrate(1400), (Three{1400, 1500, 1601}));
    EXPECT_EQ(calibrate(1500), (Three{1400, 1500, 1601}));
    EXPECT_EQ(calibrate(65535), (Three{1400, 33467, 65535}));
}

TEST_F(RcCalibration, NoSignalWidensToo) {
    EXPECT_EQ(calibrate(0), (Three{0, 750, 1500}));
    EXPECT_EQ(calibrate(1200), (Three{1200, 1350, 1500})) << "a minimum of 0 is none";
    put_u16(channel(16) + 4, 0);
    EXPECT_EQ(calibrate(1300), (Three{1200, 1250, 1300})) << "a maximum of 0 is none";
}

TEST_F(RcCalibration, TheValueIsThatOfTheNewCalibration) {
    calibrate(1700);
    EXPECT_DOUBLE_EQ(value(16), 1.0);
    calibrate(1100);
    EXPECT_DOUBLE_EQ(value(16), -1.0);
    calibrate(1400);
    EXPECT_DOUBLE_EQ(value(16), 0.0);
}

TEST_F(RcCalibration, OnlyTheReceiverThatIsCalibrating) {
    assign(15, {.function = 7});
    set_raw(15, 2500);
    calibrate(2500);
    EXPECT_EQ(get_u16(channel(15) + 4), 2000);
    EXPECT_EQ(get_u16(channel(16) + 4), 2500);
    bytes_[0] = rc_calibrating;
    bytes_[1] = rc_present;
    calibrate(2600);
    EXPECT_EQ(get_u16(channel(15) + 4), 2500);
    EXPECT_EQ(get_u16(channel(16) + 4), 2500);
    bytes_[1] = 3;
    calibrate(2700);
    EXPECT_EQ(get_u16(channel(16) + 4), 2500);
}

// Any inputs.

// A channel's value, computed in the simplest way from the block's description.
static double model_value(int raw, const Assignment &a) {
    double value = 0;
    if (raw < a.center - a.dead_band) {
        const double way = a.center - a.min - a.dead_band;
        value = way != 0 ? -(a.center - a.dead_band - raw) / way : 0;
    } else if (raw > a.center + a.dead_band) {
        const double way = a.max - a.center - a.dead_band;
        value = way != 0 ? (raw - a.center - a.dead_band) / way : 0;
    }
    value *= a.is_inverted ? -1 : 1;
    value *= a.limit >= 1 && a.limit <= 100 ? a.limit / 100.0 : 1;
    return value > 1 ? 1 : value < -1 ? -1 : value;
}

static double bounded(double value) {
    return value > 1 ? 1 : value < -1 ? -1 : value;
}

TEST_F(RcPass, ValuesAreThoseOfTheModel) {
    std::mt19937 random(20);
    const auto between = [&](int low, int high) {
        return std::uniform_int_distribution<int>(low, high)(random);
    };
    for (int round = 0; round < 3000; ++round) {
        std::array<double, 46> sums{};
        std::array<unsigned, 46> raws{};
        std::array<Assignment, 32> assignments;
        std::array<int, 32> raw_values{};
        for (int i = 0; i < 32; ++i) {
            const auto at = static_cast<size_t>(i);
            const bool is_usual = between(0, 3) != 0;
            Assignment &a = assignments[at];
            a.function = between(6, 44);
            a.function = a.function == 9 ? 0 : a.function;
            a.min = is_usual ? between(800, 1400) : between(0, 65535);
            a.max = is_usual ? between(1600, 2200) : between(0, 65535);
            a.center = is_usual ? between(1401, 1599) : between(0, 65535);
            a.dead_band = is_usual ? between(0, 100) : between(0, 65535);
            a.limit = is_usual ? between(1, 100) : between(0, 300);
            a.is_inverted = between(0, 1) != 0;
            const int raw = is_usual ? between(700, 2300) : between(0, 65535);
            raw_values[at] = between(0, 9) != 0 ? raw : 0;
            assign(i, a);
            set_raw(i, raw_values[at]);
            store_whole(channel(i) + 16, 0.5);
            raws[static_cast<size_t>(a.function)] = static_cast<unsigned>(raw_values[at]);
            if (raw_values[at] != 0 && a.function != 0) {
                sums[static_cast<size_t>(a.function)] += model_value(raw_values[at], a);
            }
        }
        run();
        for (int i = 0; i < 32; ++i) {
            const int raw = raw_values[static_cast<size_t>(i)];
            const double expected =
                raw != 0 ? model_value(raw, assignments[static_cast<size_t>(i)]) : 0.5;
            ASSERT_NEAR(value(i), expected, 1e-12) << "round " << round << " channel " << i;
        }
        for (size_t f = 0; f < 46; ++f) {
            ASSERT_NEAR(published(static_cast<int>(f)), bounded(sums[f]), 1e-11);
            ASSERT_EQ(published_raw(static_cast<int>(f)), raws[f]);
        }
    }
}

TEST_F(RcPass, NothingEverBecomesNotANumber) {
    std::mt19937 random(21);
    const auto finite = [](const GimbalValues &values) {
        return std::isfinite(values.pan) && std::isfinite(values.tilt) &&
               std::isfinite(values.roll);
    };
    const auto any_setting = [&] {
        return std::array<int, 5>{0, 1, 10, -7, static_cast<int>(random())}[random() % 5];
    };
    strcpy(config_->rc1_channels, R"([{"ch":1,"f":2,"l":0,"min":5,"max":5,"c":5}])");
    strcpy(config_->rc2_channels, "[{]");
    ::testing::internal::CaptureStderr();
    for (int round = 0; round < 20000; ++round) {
        switch (random() % 4) {
        case 0:
            for (uint8_t &byte : bytes_) {
                byte = static_cast<uint8_t>(random());
            }
            break;
        case 1: // a published value or a channel's value: not a number
            store_whole(block() + 1040 + random() % 46 * 8, std::nan(""));
            store_whole(channel(static_cast<int>(random() % 32)) + 16,
                        std::numeric_limits<double>::infinity());
            break;
        default: // known functions, so that channels share them
            for (int i = 0; i < 32; ++i) {
                channel(i)[24] = static_cast<uint8_t>(random() % 10);
                set_raw(i, static_cast<int>(random() % 65536));
            }
            break;
        }
        config_->rc_pan_smooth = any_setting();
        config_->app_tilt_smooth = any_setting();
        app_ = {static_cast<double>(random() % 3) - 1.0, 1.0, -0.5};
        test_time += static_cast<uint32_t>(random() % 400);
        const RcEvents found = round % 2 == 0 ? run() : run_as_is();
        ASSERT_LE(found.menu_count, 3U);
        ASSERT_LE(found.record_count, 2U);
        ASSERT_TRUE(finite(state_.rc) && finite(state_.app) && finite(state_.total)) << round;
        for (int f = 0; f < 46; ++f) {
            ASSERT_TRUE(published(f) >= -1.0 && published(f) <= 1.0) << round << " " << f;
        }
        for (int i = 0; i < 32; ++i) {
            ASSERT_TRUE(get_u16(channel(i)) == 0 || std::abs(value(i)) <= 1.0) << round;
        }
    }
    ::testing::internal::GetCapturedStderr();
}

// Several processes share the block. Here a thread acts as the reader process, which changes both
// bytes of its numbers each time, and as a program that reads what is published. Half-written
// numbers are rarely observed, but the thread sanitizer reports every access that could produce
// one.
TEST_F(RcPass, NumbersOfTheBlockAreReadAndWrittenWhole) {
    constexpr uint16_t first = 0x01FE;
    constexpr uint16_t second = 0xFE01;
    const auto is_half = [](unsigned number) {
        return number != 0 && number != first && number != second;
    };
    assign(0, {.function = 7});
    std::atomic<bool> is_done{false};
    int seen_half = 0;
    std::thread other([&] {
        for (bool is_first = true; !is_done; is_first = !is_first) {
            store_whole(channel(0), is_first ? first : second);
            seen_half += is_half(load_whole<uint16_t>(block() + 1408 + 7 * 2)) ? 1 : 0;
        }
    });
    int read_half = 0;
    for (int round = 0; round < 20000; ++round) {
        run();
        read_half += is_half(published_raw(7)) ? 1 : 0;
    }
    is_done = true;
    other.join();
    EXPECT_EQ(read_half, 0);
    EXPECT_EQ(seen_half, 0);
}
