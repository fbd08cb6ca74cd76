#include "net/pace.h"

#include "base/pause.h"

#include <gtest/gtest.h>
#include <vector>

constexpr int64_t us = 1000;
constexpr int64_t ms = 1000 * us;
constexpr int64_t start = 5'000'000 * us;

// A sender of video with its own clock: sending takes `send_ns`, a sleep ends `late_ns` late.
struct Sender {
    VideoBucket bucket{};
    int64_t now = start;
    int64_t send_ns = 0;
    int64_t late_ns = 0;
    int sleeps = 0;
    std::vector<int64_t> left; // when each block left

    void send(int blocks, size_t length = 1300) {
        for (int i = 0; i < blocks; ++i) {
            const int64_t moment = video_sleep_until(bucket, now);
            if (moment != 0) {
                EXPECT_GT(moment, now);
                now = moment + late_ns;
                ++sleeps;
            }
            video_block_leaves(bucket, now, length);
            left.push_back(now);
            now += send_ns;
        }
    }

    // The maximum number of blocks sent within `span_ns`.
    int most_within(int64_t span_ns) const {
        int most = 0;
        for (size_t first = 0, last = 0; last < left.size(); ++last) {
            while (left[last] - left[first] > span_ns) {
                ++first;
            }
            most = std::max(most, static_cast<int>(last - first + 1));
        }
        return most;
    }
};

TEST(Pace, ARoundTakesTwoMicrosecondsForEachDatagram) {
    EXPECT_EQ(round_length_ns(1), 2 * us);
    EXPECT_EQ(round_length_ns(11), 22 * us);
}

TEST(Pace, FortyBlocksGoAtOnce) {
    Sender sender;
    sender.send(40);
    EXPECT_EQ(sender.sleeps, 0);
    EXPECT_EQ(sender.left.back(), start);
}

TEST(Pace, ThenItSleepsUntilThirtyTwoAreOwedAndSendsEight) {
    Sender sender;
    sender.send(57);
    EXPECT_EQ(sender.sleeps, 3);
    EXPECT_EQ(sender.left[40], start + 240 * us);
    EXPECT_EQ(sender.left[47], start + 240 * us);
    EXPECT_EQ(sender.left[48], start + 480 * us);
    EXPECT_EQ(sender.left[56], start + 720 * us);
}

TEST(Pace, TheLargestFrameTakesFiveMilliseconds) {
    Sender sender;
    sender.send_ns = 3 * us;
    sender.send(224);
    EXPECT_NEAR(static_cast<double>(sender.now - start) / ms, 5.6, 0.2);
}

TEST(Pace, ALateWakeUpIsMadeUp) {
    Sender sender;
    sender.late_ns = 60 * us;
    sender.send(2000);
    // Still one per 30 us on average, and no more than 40 in a row.
    EXPECT_NEAR(static_cast<double>(sender.left.back() - start), 2000 * 30 * us, 1.5 * ms);
    EXPECT_LE(sender.most_within(0), 40);
    EXPECT_LE(sender.most_within(1000 * us), 40 + 34 + 1);
}

TEST(Pace, AVeryLateWakeUpIsNoReasonForALongerRow) {
    Sender sender;
    sender.late_ns = 50 * ms;
    sender.send(500);
    EXPECT_EQ(sender.most_within(0), 40);
}

TEST(Pace, WhatIsOwedIsForgottenWithTime) {
    Sender sender;
    sender.send(40);
    sender.now += 40 * 30 * us;
    sender.send(40);
    EXPECT_EQ(sender.sleeps, 0);
    sender.now += 1'000'000 * ms;
    sender.send(41);
    EXPECT_EQ(sender.sleeps, 1) << "a long rest earns no more than a short one";
}

TEST(Pace, FramesBackToBackShareTheBucket) {
    Sender sender;
    for (int frame = 0; frame < 10; ++frame) {
        sender.send(30);
    }
    EXPECT_GE(sender.left.back() - start, (300 - 40) * 30 * us);
}

TEST(Pace, LargerBlocksCountAsSeveralAndSmallerOnesAsOne) {
    Sender one;
    one.send(41, 1);
    EXPECT_EQ(one.sleeps, 1);
    Sender large;
    large.send(1, 65507); // 51 of 1300 bytes
    large.send(1, 65507);
    EXPECT_EQ(large.left.back() - start, (51 - 32) * 30 * us);
}

TEST(Pace, LetGoNoMoreThanWhatIsFreeStaysOwed) {
    Sender sender;
    sender.send(40);
    video_debt_forgiven(sender.bucket, sender.now);
    sender.send(8);
    EXPECT_EQ(sender.sleeps, 0);
    sender.send(1);
    EXPECT_EQ(sender.sleeps, 1);
    VideoBucket fresh{};
    video_debt_forgiven(fresh, start);
    EXPECT_EQ(fresh.paid_until_ns, 0) << "nothing is added";
}

TEST(Pace, VideoSleepsUnlessThereIsAHurry) {
    VideoBucket paced{};
    VideoBucket hurried{};
    const int64_t begin = monotonic_ns();
    for (int i = 0; i < 400; ++i) {
        pace_video(paced, 1300, [] { return false; });
    }
    const int64_t between = monotonic_ns();
    EXPECT_GE(between - begin, (400 - 40) * 30 * us);
    for (int i = 0; i < 100000; ++i) {
        pace_video(hurried, 1300, [] { return true; });
    }
    EXPECT_LT(monotonic_ns() - between, 100000 * 30 * us);
}

TEST(Pace, PatienceIsTwentyMillisecondsAtOnceAndFivePercentOfTheTime) {
    Patience patience{};
    EXPECT_EQ(patience_left_ns(patience, start), 20 * ms);
    use_patience(patience, start, 3 * ms);
    EXPECT_EQ(patience_left_ns(patience, start), 17 * ms);
    EXPECT_EQ(patience_left_ns(patience, start + 40 * ms), 19 * ms);
    EXPECT_EQ(patience_left_ns(patience, start + 60 * ms), 20 * ms);
    EXPECT_EQ(patience_left_ns(patience, start + 9000 * ms), 20 * ms);
    use_patience(patience, start, 50 * ms);
    EXPECT_EQ(patience_left_ns(patience, start), 0);
    int64_t waited = 0;
    const int64_t span = 10000 * ms;
    Patience used{};
    for (int64_t now = start; now < start + span; now += ms) {
        if (patience_left_ns(used, now) >= ms) {
            use_patience(used, now, ms);
            waited += ms;
        }
    }
    EXPECT_NEAR(static_cast<double>(waited), 20 * ms + span / 20, 2 * ms);
}
