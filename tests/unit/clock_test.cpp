#include "base/clock.h"
#include "media/video_source.h"
#include "net/udp_endpoint.h"

#include <gtest/gtest.h>

TEST(Clock, CountsSecondsAndTruncatesNanoseconds) {
    EXPECT_EQ(milliseconds_of({0, 0}), 0U);
    EXPECT_EQ(milliseconds_of({1, 999999}), 1000U);
    EXPECT_EQ(milliseconds_of({1, 1000000}), 1001U);
    EXPECT_EQ(milliseconds_of({7, 999999999}), 7999U);
}

TEST(Clock, WrapsModulo32Bits) {
    // 2^32 ms are 4294967.296 s.
    EXPECT_EQ(milliseconds_of({4294967, 295000000}), 0xFFFFFFFFU);
    EXPECT_EQ(milliseconds_of({4294967, 296000000}), 0U);
    EXPECT_EQ(milliseconds_of({1790000000, 5000000}),
              static_cast<uint32_t>(1790000000ULL * 1000 + 5));
}

TEST(Clock, GoesOnAfter2038) {
    EXPECT_EQ(milliseconds_of({0x7FFFFFFF, 999000000}) + 1, milliseconds_of({0x80000000, 0}));
    EXPECT_EQ(milliseconds_of({0x100000001, 7000000}), 1007U); // 2^32 s wrap to 0 ms
}

TEST(PeerLoss, IsStrictlyAfterTheTimeout) {
    EXPECT_FALSE(udp_peer_is_lost(5000, 5000, 1000));
    EXPECT_FALSE(udp_peer_is_lost(5000, 6000, 1000));
    EXPECT_TRUE(udp_peer_is_lost(5000, 6001, 1000));
}

TEST(PeerLoss, SurvivesTheWrapOfTheClock) {
    EXPECT_FALSE(udp_peer_is_lost(0xFFFFFF00U, 0x2E8U, 1000)); // 1000 ms later
    EXPECT_TRUE(udp_peer_is_lost(0xFFFFFF00U, 0x2E9U, 1000));  // 1001 ms later
}

TEST(PeerLoss, TakesAClockSetBackForALongSilence) {
    EXPECT_TRUE(udp_peer_is_lost(5000, 4999, 5000));
}

TEST(VideoLoss, IsStrictlyAfterOneSecond) {
    EXPECT_FALSE(video_is_lost(5000, 6000));
    EXPECT_TRUE(video_is_lost(5000, 6001));
}

TEST(VideoLoss, NeverComesBeforeTheFirstFrame) {
    EXPECT_FALSE(video_is_lost(0, 6001));
    EXPECT_FALSE(video_is_lost(0, 0x7FFFFFFFU));
}

TEST(VideoLoss, SurvivesTheWrapOfTheClock) {
    EXPECT_FALSE(video_is_lost(0xFFFFFF00U, 0x2E8U));
    EXPECT_TRUE(video_is_lost(0xFFFFFF00U, 0x2E9U));
}

TEST(VideoLoss, IsCalmWhenTheClockIsSetBack) {
    // The difference is signed, so a frame from the future is not old.
    EXPECT_FALSE(video_is_lost(5000, 4000));
    EXPECT_FALSE(video_is_lost(5000, 5000U - 0x80000000U + 1));
}
