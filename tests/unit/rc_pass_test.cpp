#include "rc/rc_pass.h"

#include "base/shared_memory.h"
#include "base/text.h"

#include <array>
#include <atomic>
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

using Bytes = std::vector<uint8_t>;

static uint32_t test_time;

static uint32_t test_clock() {
    return test_time;
}

// The calibration and assignment of a test's channel.
struct Assignment {
    int function = function_pan;
    int min = 1000;
    int max = 2000;
    int center = 1500;
    int dead_band = 0;
    int limit = 100;
    bool is_inverted = false;
};

// A pass over a block in ordinary memory; both receivers were seen before.
class RcPass : public ::testing::Test {
protected:
    RcPass() {
        test_time = 1000000;
        state_.present[0] = true;
        state_.present[1] = true;
        bytes_[0] = rc_present;
        bytes_[1] = rc_present;
    }
    uint8_t *block() {
        return bytes_.data();
    }
    uint8_t *channel(int index) {
        return rc_channel(block(), index);
    }
    void assign(int index, const Assignment &assignment) {
        put_u16(channel(index) + 2, static_cast<uint16_t>(assignment.min));
        put_u16(channel(index) + 4, static_cast<uint16_t>(assignment.max));
        put_u16(channel(index) + 6, static_cast<uint16_t>(assignment.center));
        channel(index)[8] = assignment.is_inverted ? 1 : 0;
        channel(index)[24] = static_cast<uint8_t>(assignment.function);
        put_u16(channel(index) + 26, static_cast<uint16_t>(assignment.dead_band));
        put_u16(channel(index) + 28, static_cast<uint16_t>(assignment.limit));
    }
    void set_raw(int index, int raw) {
        put_u16(channel(index), static_cast<uint16_t>(raw));
    }
    void set_update_time(int receiver, uint32_t time) {
        put_u32(block() + 4 + receiver * 4, time);
    }
    uint32_t update_time(int receiver) {
        return get_u32(block() + 4 + receiver * 4);
    }
    double value(int index) {
        return load_whole<double>(channel(index) + 16);
    }
    double published(int function) {
        return load_whole<double>(block() + 1040 + function * 8);
    }
    unsigned published_raw(int function) {
        return get_u16(block() + 1408 + function * 2);
    }
    // A pass while the readers go on writing.
    RcEvents run() {
        set_update_time(0, test_time);
        set_update_time(1, test_time);
        return run_as_is();
    }
    RcEvents run_as_is() {
        return run_rc_pass(block(), *config_, test_clock, app_, state_);
    }
    // What a pass says on standard error.
    std::string said_by_pass() {
        ::testing::internal::CaptureStderr();
        run_as_is();
        return ::testing::internal::GetCapturedStderr();
    }
    // The events of a pass as text: menu codes, then '+' for start and '-' for stop.
    std::string events() {
        const RcEvents found = run();
        std::string text;
        for (size_t i = 0; i < found.menu_count; ++i) {
            text += std::to_string(found.menu[i]);
        }
        for (size_t i = 0; i < found.record_count; ++i) {
            text += found.record[i] == RecordCommand::start ? '+' : '-';
        }
        return text;
    }
    // Gives channel `index` a stick for `function` whose raw value is 1500 plus 500 times its way.
    void add_stick(int index, int function) {
        assign(index, {.function = function});
        set_raw(index, 1500);
    }
    void move_stick(int index, double way) {
        set_raw(index, 1500 + static_cast<int>(std::lround(way * 500)));
    }

    Bytes bytes_ = Bytes(rc_block_size);
    std::unique_ptr<ConfigRecord> config_ = std::make_unique<ConfigRecord>();
    GimbalValues app_{};
    RcLoopState state_{};
};

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

// A clock that goes on; right after it is read both readers update.
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
    set_raw(0, 2250); // 1.5 times the way
    run();
    EXPECT_DOUBLE_EQ(value(0), 0.75);
    set_raw(0, 100); // 2.8 times the way
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
    set_raw(0, 1550); // 10 out of the dead band, on a way of -20
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

// The menu.

class RcMenu : public RcPass {
protected:
    RcMenu() {
        add_stick(0, function_menu_switch);
        add_stick(1, function_pan);
        add_stick(2, function_tilt);
        add_stick(3, function_roll);
    }
    // Presses the switch and lets the menu see it.
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
        for (const int delta : {600, -600, 599, -599}) { // 30000 is all the way
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

// Any inputs.

// A channel's value by the description of the block, in the least clever way.
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
        case 1: // a published value, a channel's value: no number at all
            store_whole(block() + 1040 + random() % 46 * 8, std::nan(""));
            store_whole(channel(static_cast<int>(random() % 32)) + 16,
                        std::numeric_limits<double>::infinity());
            break;
        default: // known functions, so that they meet
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

// The block belongs to several processes. Here a thread is the reader process, whose numbers have
// both bytes changed each time, and a program that looks at what is published. Halves are rarely
// caught in the act; the thread sanitizer sees every access that could make one.
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
