#include "rc/rc_block.h"

#include "base/bytes.h"
#include "base/shared_numbers.h"
#include "rc/rc_block_layout.h"
#include "rc/smoothing.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

using Bytes = std::vector<uint8_t>;

// A block in ordinary memory in which every byte differs from zero.
class RcBlock : public ::testing::Test {
protected:
    RcBlock() {
        for (size_t i = 0; i < bytes_.size(); ++i) {
            bytes_[i] = static_cast<uint8_t>(1 + i * 7 % 251);
        }
        before_ = bytes_;
    }
    void load(int receiver, const char *text) {
        load_rc_channels(bytes_.data(), receiver, text);
    }
    // The offsets of the bytes that have changed.
    std::vector<size_t> changes() const {
        std::vector<size_t> found;
        for (size_t i = 0; i < bytes_.size(); ++i) {
            if (bytes_[i] != before_[i]) {
                found.push_back(i);
            }
        }
        return found;
    }

    Bytes bytes_ = Bytes(rc_block_size);
    Bytes before_;
};

TEST_F(RcBlock, ChannelRecordsFollowEachOther) {
    EXPECT_EQ(rc_channel(bytes_.data(), 0), bytes_.data() + 16);
    EXPECT_EQ(rc_channel(bytes_.data(), 18), bytes_.data() + 16 + 18 * 32);
    EXPECT_EQ(rc_channel(bytes_.data(), 31), bytes_.data() + 1008);
}

TEST_F(RcBlock, ClearingLeavesWhatTheReaderWrote) {
    Bytes expected = before_;
    for (size_t at = 16; at < 1040; at += 32) {
        // Minimum, maximum, centre; invert; value; function; dead band, limit, enable.
        for (const auto &[from, to] : {std::pair<size_t, size_t>{2, 9}, {16, 25}, {26, 31}}) {
            memset(&expected[at + from], 0, to - from);
        }
    }
    memset(&expected[1040], 0, 368);
    clear_rc_calibration(bytes_.data());
    EXPECT_EQ(bytes_, expected);
}

TEST_F(RcBlock, LoadsEveryField) {
    load(0, R"([{"ch":5,"min":4386,"max":8755,"c":13124,"i":1,"e":2,"d":17493,"l":99,"f":45}])");
    const uint8_t *channel = &bytes_[16 + 4 * 32];
    const uint8_t *old = &before_[16 + 4 * 32];
    const Bytes expected{old[0], old[1], 0x22, 0x11, 0x33, 0x22, 0x44, 0x33, 1};
    EXPECT_EQ(Bytes(channel, channel + 9), expected);
    EXPECT_EQ(Bytes(channel + 9, channel + 24), Bytes(old + 9, old + 24));
    const Bytes rest{45, old[25], 0x55, 0x44, 99, 0, 2, old[31]};
    EXPECT_EQ(Bytes(channel + 24, channel + 32), rest);
    const auto changed = changes();
    EXPECT_GE(changed.front(), 16U + 4 * 32);
    EXPECT_LT(changed.back(), 16U + 5 * 32);
}

TEST_F(RcBlock, OneKeyOfOneChannelOfTheSecondReceiver) {
    load(1, R"([{"ch":3,"min":1000}])");
    const size_t at = 16 + 18 * 32 + 2;
    EXPECT_EQ(changes(), (std::vector<size_t>{at, at + 1}));
    EXPECT_EQ(get_u16(&bytes_[at]), 1000);
}

TEST_F(RcBlock, AbsentKeysLeaveTheirFieldsAlone) {
    const struct {
        const char *key;
        size_t offset;
        size_t size;
    } fields[] = {{"min", 2, 2}, {"max", 4, 2}, {"c", 6, 2},  {"i", 8, 1},
                  {"f", 24, 1},  {"d", 26, 2},  {"l", 28, 2}, {"e", 30, 1}};
    for (const auto &field : fields) {
        bytes_ = before_;
        load(0, (R"([{"ch":16,")" + std::string(field.key) + R"(":0}])").c_str());
        std::vector<size_t> expected;
        for (size_t i = 0; i < field.size; ++i) {
            expected.push_back(16 + 15 * 32 + field.offset + i);
        }
        EXPECT_EQ(changes(), expected) << field.key;
    }
}

TEST_F(RcBlock, ElementsWithoutAChannelInRangeAreRejected) {
    for (int receiver = 0; receiver < 2; ++receiver) {
        for (const char *text :
             {R"([{"min":1000}])", R"([{"ch":0,"min":1000}])", R"([{"ch":17,"min":1000}])",
              R"([{"ch":33,"min":1000}])", R"([{"ch":-1,"min":1000}])", R"([{"ch":"","min":1000}])",
              R"([{"ch":null,"min":1000}])", R"([{"ch":1e300,"min":1000}])",
              R"([{"ch":-15,"min":1000}])", R"([{"ch":65537,"min":1000}])"}) {
            load(receiver, text);
            EXPECT_TRUE(changes().empty()) << text;
        }
    }
}

TEST_F(RcBlock, OthersOfTheListAreAppliedAllTheSame) {
    load(1, R"([{"min":1},{"ch":1,"e":0},5,null,"x",[],{"ch":17,"e":0},{"ch":16,"e":0}])");
    EXPECT_EQ(changes(), (std::vector<size_t>{16 + 16 * 32 + 30, 16 + 31 * 32 + 30}));
}

TEST_F(RcBlock, TheLastOfTwoElementsForAChannelCounts) {
    load(0, R"([{"ch":1,"min":5},{"ch":1,"min":6}])");
    EXPECT_EQ(get_u16(&bytes_[18]), 6);
}

TEST_F(RcBlock, TextsThatAreNoListChangeNothing) {
    for (const char *text :
         {"", " ", "[", "[]", R"([{"ch":1,"min":5})", R"([{"ch":1,"min":}])", "null", "7",
          R"("[]")", R"({"ch":1,"min":5})", static_cast<const char *>(nullptr)}) {
        load(0, text);
        EXPECT_TRUE(changes().empty()) << (text != nullptr ? text : "null");
    }
}

TEST_F(RcBlock, NumbersTakeTheirLowBits) {
    load(0, R"([{"ch":1,"min":65536,"max":70000,"c":-1,"i":256,"e":257,"f":-1,"d":-65535}])");
    const uint8_t *channel = &bytes_[16];
    EXPECT_EQ(get_u16(channel + 2), 0);
    EXPECT_EQ(get_u16(channel + 4), 70000 - 65536);
    EXPECT_EQ(get_u16(channel + 6), 65535);
    EXPECT_EQ(channel[8], 0);
    EXPECT_EQ(channel[24], 255);
    EXPECT_EQ(get_u16(channel + 26), 1);
    EXPECT_EQ(channel[30], 1);
}

TEST(RcBlockMissing, LoadingSaysSoAndTheChannelsAreEmpty) {
    ::testing::internal::CaptureStderr();
    load_rc_channels(nullptr, 0, R"([{"ch":1,"min":5}])");
    load_rc_channels(nullptr, 1, "");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "Failed to get shared RC buffer\nFailed to get shared RC buffer\n");
    EXPECT_EQ(rc_channels_json(nullptr, 0), "");
    EXPECT_EQ(rc_channels_json(nullptr, 1), "");
}

TEST(RcBlockMissing, CalibrationOnlySaysWhatItWouldDoAndThatNothingIsSaved) {
    ASSERT_EQ(rc_block(), nullptr);
    ::testing::internal::CaptureStderr();
    for (const int state : {2, 3, 4, 0, 1, 5, -1}) {
        set_rc_state(0, state);
    }
    set_rc_state(1, 2);
    set_rc_state(2147483647, 2);
    save_rc_channels();
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "Set RC1 state 2\nRC1 begin calibration min/max\n"
              "Set RC1 state 3\nRC1 finish calibration min/max\n"
              "RC channels are not saved: the shared block is not there\n"
              "Set RC1 state 4\nRC1 calibration center\n"
              "RC channels are not saved: the shared block is not there\n"
              "Set RC1 state 0\nSet RC1 state 1\nSet RC1 state 5\nSet RC1 state -1\n"
              "Set RC2 state 2\nRC2 begin calibration min/max\n"
              "Set RC-2147483648 state 2\nRC-2147483648 begin calibration min/max\n"
              "RC channels are not saved: the shared block is not there\n");
}

static void fill_channel(uint8_t *channel, uint16_t base) {
    put_u16(channel + channel_raw_at, base);
    put_u16(channel + channel_min_at, static_cast<uint16_t>(base + 1));
    put_u16(channel + channel_max_at, static_cast<uint16_t>(base + 2));
    put_u16(channel + channel_center_at, static_cast<uint16_t>(base + 3));
    channel[channel_invert_at] = static_cast<uint8_t>(base + 4);
    channel[channel_enable_at] = static_cast<uint8_t>(base + 5);
    put_u16(channel + channel_dead_band_at, static_cast<uint16_t>(base + 6));
    put_u16(channel + channel_limit_at, static_cast<uint16_t>(base + 7));
    channel[channel_function_at] = static_cast<uint8_t>(base + 8);
    store_whole(channel + channel_value_at, base % 2 == 0 ? 0.5 : -0.0626);
}

// A block in which the fields of channel index i start at the value 1000 + 31 * i.
static Bytes numbered_block() {
    Bytes bytes(rc_block_size);
    for (int i = 0; i < rc_channel_count; ++i) {
        fill_channel(rc_channel(bytes.data(), i), static_cast<uint16_t>(1000 + 31 * i));
    }
    return bytes;
}

TEST(RcChannelTexts, LiveChannelsInOrder) {
    const Bytes bytes = numbered_block();
    for (int receiver = 0; receiver < 2; ++receiver) {
        std::string expected = "[";
        for (int n = 0; n < 16; ++n) {
            const int base = 1000 + 31 * (n + 16 * receiver);
            const auto at = [&](int more) { return std::to_string(base + more); };
            const auto low = [&](int more) { return std::to_string((base + more) % 256); };
            expected += std::string(n > 0 ? "," : "") + R"({"raw":)" + at(0) + R"(,"min":)" +
                        at(1) + R"(,"max":)" + at(2) + R"(,"c":)" + at(3) + R"(,"i":)" + low(4) +
                        R"(,"val":)" + (base % 2 == 0 ? "0.500" : "-0.063") + R"(,"d":)" + at(6) +
                        R"(,"e":)" + low(5) + R"(,"l":)" + at(7) + R"(,"f":)" + low(8) + "}";
        }
        EXPECT_EQ(rc_channels_json(bytes.data(), receiver), expected + "]");
    }
}

TEST(RcChannelTexts, StoredChannelsAreNumberedFrom1ForBoth) {
    const Bytes bytes = numbered_block();
    for (int receiver = 0; receiver < 2; ++receiver) {
        std::string expected = "[";
        for (int n = 0; n < 16; ++n) {
            const int base = 1000 + 31 * (n + 16 * receiver);
            const auto at = [&](int more) { return std::to_string(base + more); };
            const auto low = [&](int more) { return std::to_string((base + more) % 256); };
            expected += std::string(n > 0 ? "," : "") + R"({"ch":)" + std::to_string(n + 1) +
                        R"(,"min":)" + at(1) + R"(,"max":)" + at(2) + R"(,"c":)" + at(3) +
                        R"(,"i":)" + low(4) + R"(,"e":)" + low(5) + R"(,"d":)" + at(6) +
                        R"(,"l":)" + at(7) + R"(,"f":)" + low(8) + "}";
        }
        EXPECT_EQ(rc_channels_setting(bytes.data(), receiver), expected + "]");
    }
}

TEST(RcChannelTexts, AnEmptyBlock) {
    const Bytes bytes(rc_block_size);
    const std::string live =
        R"({"raw":0,"min":0,"max":0,"c":0,"i":0,"val":0.000,"d":0,"e":0,"l":0,"f":0})";
    const std::string text = rc_channels_json(bytes.data(), 1);
    EXPECT_EQ(text.size(), 16 * live.size() + 17);
    EXPECT_EQ(text.substr(0, live.size() + 2), "[" + live + ",");
    EXPECT_EQ(rc_channels_setting(bytes.data(), 0).substr(0, 72),
              R"([{"ch":1,"min":0,"max":0,"c":0,"i":0,"e":0,"d":0,"l":0,"f":0},{"ch":2,"m)");
}

TEST(RcChannelTexts, TheLongestChannelsAreWhole) {
    Bytes bytes(rc_block_size, 0xFF);
    for (int i = 0; i < rc_channel_count; ++i) {
        store_whole(rc_channel(bytes.data(), i) + channel_value_at, -1.7e308);
    }
    const std::string live = rc_channels_json(bytes.data(), 0);
    const std::string end = R"(.000,"d":65535,"e":255,"l":65535,"f":255}])";
    EXPECT_EQ(live.substr(live.size() - std::min(live.size(), end.size())), end);
    EXPECT_GT(live.size(), 16U * 300);
    EXPECT_LT(rc_channels_setting(bytes.data(), 0).size(), 10000U);
}

TEST(RcChannelTexts, WhatIsStoredLoadsAgain) {
    const Bytes bytes = numbered_block();
    Bytes other(rc_block_size);
    for (int receiver = 0; receiver < 2; ++receiver) {
        load_rc_channels(other.data(), receiver,
                         rc_channels_setting(bytes.data(), receiver).c_str());
    }
    for (int i = 0; i < rc_channel_count; ++i) {
        put_u16(rc_channel(other.data(), i), static_cast<uint16_t>(1000 + 31 * i));
        store_whole(rc_channel(other.data(), i) + channel_value_at, i % 2 == 0 ? 0.5 : -0.0626);
    }
    EXPECT_EQ(other, bytes);
}

TEST(GimbalValues, AppValuesAreKept) {
    set_app_gimbal_values(0.25, -1.5, 1e-9);
    EXPECT_EQ(app_gimbal_values().pan, 0.25);
    EXPECT_EQ(app_gimbal_values().tilt, -1.5);
    EXPECT_EQ(app_gimbal_values().roll, 1e-9);
    set_app_gimbal_values(0.0, 0.0, 0.0);
    EXPECT_EQ(app_gimbal_values().pan, 0.0);
}

static std::string gimbal_text(const GimbalValues &values, size_t size = 100) {
    std::string text(size, '#');
    format_gimbal_values(values, text.data(), size);
    return text.c_str();
}

TEST(GimbalValues, SixDecimalsAndCommas) {
    EXPECT_EQ(gimbal_text({0.0, -0.25, 0.0}), "0.000000,-0.250000,0.000000");
    EXPECT_EQ(gimbal_text({1.0, -1.0, 0.0000005001}), "1.000000,-1.000000,0.000001");
    EXPECT_EQ(gimbal_text({2.0, 12.5, -1.0 / 3}), "2.000000,12.500000,-0.333333");
}

TEST(GimbalValues, TheTextStaysWithinItsRoom) {
    EXPECT_EQ(gimbal_text({1e300, 1e300, 1e300}).size(), 99U);
    EXPECT_EQ(gimbal_text({1.0, 2.0, 3.0}, 10), "1.000000,");
}
