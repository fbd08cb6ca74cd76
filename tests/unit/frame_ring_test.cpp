#include "media/frame_ring.h"

#include "base/bytes.h"
#include "media/frame_ring_layout.h"

#include <cstring>
#include <gtest/gtest.h>
#include <vector>

constexpr uint32_t capacity = 100;

// A small ring in ordinary memory.
class Ring : public ::testing::Test {
protected:
    uint8_t *slot(unsigned index) {
        return bytes_.data() + ring_header_size + index * slot_size(capacity);
    }
    void fill(unsigned index, uint32_t length, uint16_t number, uint8_t byte = 0,
              uint8_t ready = 1) {
        put_u32(slot(index) + slot_length_at, length);
        put_u16(slot(index) + slot_identifier_at, number);
        slot(index)[slot_identifier_byte_at] = byte;
        slot(index)[slot_ready_at] = ready;
    }
    TakenFrame take() {
        return take_frame(bytes_.data(), capacity, last_);
    }
    unsigned index() {
        return get_u16(bytes_.data() + ring_read_index_at);
    }
    void set_index(uint16_t value) {
        put_u16(bytes_.data() + ring_read_index_at, value);
    }

    std::vector<uint8_t> bytes_ = std::vector<uint8_t>(ring_size(capacity), 0);
    FrameIdentifier last_;
};

TEST_F(Ring, GivesNothingWhileNothingIsReady) {
    EXPECT_EQ(take().result, TakeResult::none);
    fill(0, 10, 1, 0, 0);
    EXPECT_EQ(take().result, TakeResult::none);
    fill(0, 0, 1);
    EXPECT_EQ(take().result, TakeResult::none);
    EXPECT_EQ(slot(0)[slot_ready_at], 1) << "an empty slot keeps waiting";
    EXPECT_EQ(index(), 0U);
}

TEST_F(Ring, GivesFramesInOrder) {
    for (unsigned i = 0; i < 3; ++i) {
        fill(i, 10 + i, static_cast<uint16_t>(i));
    }
    for (unsigned i = 0; i < 3; ++i) {
        const TakenFrame frame = take();
        EXPECT_EQ(frame.result, TakeResult::frame);
        EXPECT_EQ(frame.length, 10 + i);
        EXPECT_EQ(frame.data, slot(i) + slot_data_at);
        EXPECT_EQ(slot(i)[slot_ready_at], 0);
        EXPECT_EQ(index(), i + 1);
    }
    EXPECT_EQ(take().result, TakeResult::none);
}

TEST_F(Ring, AnyReadyValueButZeroCounts) {
    fill(0, 10, 1, 0, 0x80);
    EXPECT_EQ(take().result, TakeResult::frame);
    EXPECT_EQ(slot(0)[slot_ready_at], 0);
}

TEST_F(Ring, TheIndexComesRoundBehindTheLastSlot) {
    set_index(199);
    fill(199, 10, 1);
    EXPECT_EQ(take().result, TakeResult::frame);
    EXPECT_EQ(index(), 0U);
}

TEST_F(Ring, TheReadIndexIsWrittenAsTwoBytes) {
    set_index(198);
    bytes_[8] = 0x55;
    fill(198, 10, 1);
    take();
    EXPECT_EQ(bytes_[6], 199);
    EXPECT_EQ(bytes_[7], 0);
    EXPECT_EQ(bytes_[8], 0x55);
}

TEST_F(Ring, TheFirstFrameIsNeverADuplicate) {
    fill(0, 10, 0, 0);
    EXPECT_EQ(take().result, TakeResult::frame);
    last_ = FrameIdentifier{};
    fill(1, 10, 0xFFFF, 0xFF);
    EXPECT_EQ(take().result, TakeResult::frame);
}

TEST_F(Ring, ADuplicateIsTakenButNotGiven) {
    fill(0, 10, 7, 3);
    fill(1, 20, 7, 3);
    fill(2, 30, 7, 4);
    fill(3, 40, 8, 4);
    EXPECT_EQ(take().result, TakeResult::frame);
    const TakenFrame duplicate = take();
    EXPECT_EQ(duplicate.result, TakeResult::duplicate);
    EXPECT_EQ(duplicate.data, nullptr);
    EXPECT_EQ(slot(1)[slot_ready_at], 0);
    EXPECT_EQ(index(), 2U);
    EXPECT_EQ(take().length, 30U);
    EXPECT_EQ(take().length, 40U);
}

TEST_F(Ring, OneIdentifierIsRememberedForBothRings) {
    fill(0, 10, 7, 3);
    EXPECT_EQ(take().result, TakeResult::frame);
    std::vector<uint8_t> other = bytes_;
    put_u16(other.data() + ring_read_index_at, 0);
    other[ring_header_size + slot_ready_at] = 1;
    EXPECT_EQ(take_frame(other.data(), capacity, last_).result, TakeResult::duplicate);
}

TEST_F(Ring, AnIndexOutOfRangeStartsAgainAtZero) {
    for (const unsigned bad : {200U, 201U, 256U, 65535U}) {
        set_index(static_cast<uint16_t>(bad));
        const TakenFrame frame = take();
        EXPECT_EQ(frame.result, TakeResult::bad_index);
        EXPECT_EQ(frame.index, bad);
        EXPECT_EQ(index(), 0U);
    }
}

TEST_F(Ring, AFrameLongerThanItsSlotIsGivenUp) {
    fill(0, capacity, 1);
    EXPECT_EQ(take().result, TakeResult::frame) << "exactly the capacity fits";
    fill(1, capacity + 1, 2);
    fill(2, 0xFFFFFFFFU, 3);
    fill(3, 1, 2);
    EXPECT_EQ(take().result, TakeResult::bad_length);
    EXPECT_EQ(take().result, TakeResult::bad_length);
    EXPECT_EQ(slot(2)[slot_ready_at], 0);
    EXPECT_EQ(take().result, TakeResult::frame) << "a frame given up is not remembered";
}

TEST_F(Ring, TellsWhetherMoreFramesWait) {
    set_index(198);
    for (const unsigned i : {198U, 199U, 0U}) {
        fill(i, 10, static_cast<uint16_t>(i));
    }
    EXPECT_TRUE(more_frames_wait(bytes_.data(), capacity, 0));
    EXPECT_TRUE(more_frames_wait(bytes_.data(), capacity, 2));
    EXPECT_FALSE(more_frames_wait(bytes_.data(), capacity, 3));
    take();
    EXPECT_FALSE(more_frames_wait(bytes_.data(), capacity, 2));
}
