#include "net/frame_queue.h"

#include <deque>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <string>

class Frames : public ::testing::Test {
protected:
    bool put(const std::string &frame) {
        const bool fits =
            queue_frame(*queue_, reinterpret_cast<const uint8_t *>(frame.data()), frame.size());
        if (fits) {
            kept_.push_back(frame);
        }
        return fits;
    }

    // Checks that the oldest frame is the expected one, and drops it.
    void take() {
        const QueuedFrame *frame = oldest_frame(*queue_);
        ASSERT_NE(frame, nullptr);
        ASSERT_EQ(std::string(queue_->bytes + frame->at, queue_->bytes + frame->at + frame->length),
                  kept_.front());
        drop_oldest_frame(*queue_);
        kept_.pop_front();
    }

    std::unique_ptr<FrameQueue> queue_ = std::make_unique<FrameQueue>();
    std::deque<std::string> kept_;
};

TEST_F(Frames, ComeOutInOrderAndWhole) {
    EXPECT_EQ(oldest_frame(*queue_), nullptr);
    for (const char *frame : {"a", "frame", "and another"}) {
        EXPECT_TRUE(put(frame));
    }
    for (int i = 0; i < 3; ++i) {
        take();
    }
    EXPECT_EQ(oldest_frame(*queue_), nullptr);
    drop_oldest_frame(*queue_);
    EXPECT_EQ(oldest_frame(*queue_), nullptr);
}

TEST_F(Frames, ThatDoNotFitAreLeftOutWhole) {
    EXPECT_FALSE(put(std::string(frame_queue_bytes + 1, 'x')));
    EXPECT_TRUE(put(std::string(frame_queue_bytes, 'x')));
    EXPECT_FALSE(put("y"));
    take();
    EXPECT_TRUE(put("y"));
    EXPECT_FALSE(put(""));
    take();
}

TEST_F(Frames, SixOfTheLargestFit) {
    for (int i = 0; i < 6; ++i) {
        EXPECT_TRUE(put(std::string(300000, static_cast<char>('a' + i))));
    }
}

TEST_F(Frames, AreNotMoreThanTheirPlaces) {
    for (unsigned i = 0; i < frame_queue_frames; ++i) {
        EXPECT_TRUE(put(std::to_string(i)));
    }
    EXPECT_FALSE(put("one too many"));
    take();
    EXPECT_TRUE(put("the last"));
    while (!kept_.empty()) {
        take();
    }
}

TEST_F(Frames, BeginAtTheStartOfTheBytesAgainWhenAllAreGone) {
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(put(std::string(50000, 'x')));
        EXPECT_EQ(oldest_frame(*queue_)->at, 0U);
        take();
    }
}

TEST_F(Frames, EmptiedTheQueueTakesNewOnes) {
    put("before");
    empty_frame_queue(*queue_);
    kept_.clear();
    EXPECT_EQ(oldest_frame(*queue_), nullptr);
    put("after");
    take();
}

TEST_F(Frames, SurviveAnyOrderOfPuttingAndTaking) {
    std::mt19937 random(7); // NOLINT: the same every time
    for (int i = 0; i < 20000; ++i) {
        const bool fills = (i / 500) % 2 == 0;
        if (random() % 8 < (fills ? 6U : 2U)) {
            put(std::string(random() % (random() % 4 == 0 ? 300000 : 20000) + 1,
                            static_cast<char>(random())));
        } else if (!kept_.empty()) {
            take();
        }
        ASSERT_EQ(queue_->count, kept_.size());
    }
}
