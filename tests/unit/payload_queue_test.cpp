#include "net/payload_queue.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>

namespace {

const Ipv4Port one = ipv4_port("10.0.0.1", 1001);
const Ipv4Port other = ipv4_port("10.0.0.1", 1002);

class Queue : public ::testing::Test {
protected:
    bool push(Ipv4Port sender, const std::string &text) {
        return push_payload(*queue, sender, reinterpret_cast<const uint8_t *>(text.data()),
                            text.size());
    }

    // The oldest payload, removed; "none" when there is none.
    std::string take() {
        if (!first_payload(*queue, *payload)) {
            return "none";
        }
        pop_payload(*queue);
        return {reinterpret_cast<const char *>(payload->bytes), payload->size};
    }

    std::unique_ptr<PayloadQueue> queue = std::make_unique<PayloadQueue>();
    std::unique_ptr<QueuedPayload> payload = std::make_unique<QueuedPayload>();
};

} // namespace

TEST_F(Queue, KeepsOrderAndSenders) {
    EXPECT_EQ(take(), "none");
    EXPECT_TRUE(push(one, "a"));
    EXPECT_TRUE(push(other, "bc"));
    EXPECT_TRUE(push(one, ""));
    EXPECT_EQ(take(), "a");
    EXPECT_EQ(payload->sender, one);
    EXPECT_EQ(take(), "bc");
    EXPECT_EQ(payload->sender, other);
    EXPECT_EQ(take(), "");
    EXPECT_EQ(take(), "none");
}

TEST_F(Queue, ZerosFollowAPayload) {
    push(one, std::string(queued_payload_limit, 'x'));
    push(one, "y");
    take();
    EXPECT_EQ(take(), "y");
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(payload->bytes + 1), queued_payload_zeros),
              std::string(queued_payload_zeros, '\0'));
}

TEST_F(Queue, WhatFindsNoRoomIsDroppedAndCounted) {
    const std::string large(queued_payload_limit, 'x');
    int count = 0;
    while (push(one, large)) {
        ++count;
    }
    EXPECT_EQ(count, 34); // of 30016 bytes, in a megabyte
    EXPECT_EQ(queue->dropped, 1U);
    EXPECT_TRUE(push(one, "still fits"));
    EXPECT_EQ(take(), large);
    EXPECT_TRUE(push(one, large));
    EXPECT_FALSE(push(one, large));
    EXPECT_EQ(queue->dropped, 2U);
}

TEST_F(Queue, TakesNothingLargerThanItCanGiveBack) {
    EXPECT_FALSE(push(one, std::string(queued_payload_limit + 1, 'x')));
    EXPECT_EQ(queue->dropped, 1U);
    EXPECT_EQ(take(), "none");
}

TEST_F(Queue, CanBeFilledToTheLastByte) {
    const std::string unit(queued_payload_limit - 16, 'x');
    while (push(one, unit)) {
    }
    while (queue->written - queue->taken < payload_queue_size) {
        ASSERT_TRUE(push(other, "12345678") || push(other, ""));
    }
    EXPECT_FALSE(push(other, ""));
    EXPECT_TRUE(has_payload_of(*queue, other));
    EXPECT_EQ(take(), unit);
    EXPECT_TRUE(push(other, ""));
}

TEST_F(Queue, PayloadsOfAllSizesGoAroundTheRingUnchanged) {
    queue->written = queue->taken = 0xFFF00000U; // the counts go around as well
    for (int i = 0; i < 20000; ++i) {
        const std::string text(static_cast<size_t>(i * 7 % 1999), static_cast<char>('a' + i % 26));
        ASSERT_TRUE(push(one + i, text));
        if (i >= 200) {
            const int before = i - 200;
            ASSERT_EQ(take(), std::string(static_cast<size_t>(before * 7 % 1999),
                                          static_cast<char>('a' + before % 26)));
            ASSERT_EQ(payload->sender, one + before);
        }
    }
    EXPECT_LT(queue->written, 0x7FFFFFFFU);
}

TEST_F(Queue, KnowsWhoseTurnHasNotCome) {
    EXPECT_FALSE(has_payload_of(*queue, one));
    push(other, "a");
    push(one, "b");
    EXPECT_TRUE(has_payload_of(*queue, one));
    take();
    EXPECT_FALSE(has_payload_of(*queue, other));
    ASSERT_TRUE(first_payload(*queue, *payload));
    EXPECT_TRUE(has_payload_of(*queue, one)) << "it is being carried out";
    pop_payload(*queue);
    EXPECT_FALSE(has_payload_of(*queue, one));
}

TEST_F(Queue, CarriesBetweenThreads) {
    constexpr int count = 100000;
    std::string wrong;
    std::thread taker([&] {
        for (int i = 0; i < count; ++i) {
            wait_for_payload(*queue);
            if (const std::string text = take(); text != std::to_string(i) && wrong.empty()) {
                wrong = text;
            }
        }
    });
    for (int i = 0; i < count; ++i) {
        while (!push(one, std::to_string(i))) {
            std::this_thread::yield();
        }
    }
    taker.join();
    EXPECT_EQ(wrong, "");
    EXPECT_EQ(take(), "none");
}
