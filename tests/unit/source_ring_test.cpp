#include "beacon_sim/access_units.h"
#include "source/ring_writer.h"

#include "base/bytes.h"
#include "media/frame_ring.h"
#include "media/frame_ring_layout.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

constexpr uint32_t capacity = 100;

// A small ring in ordinary memory, with the daemon's own reader at the other end.
class RingWriterTest : public ::testing::Test {
protected:
    uint8_t *slot(unsigned index) {
        return bytes_.data() + ring_header_size + index * slot_size(capacity);
    }
    void set_read_index(uint16_t value) {
        put_u16(bytes_.data() + ring_read_index_at, value);
    }
    RingWriter begin() {
        return begin_ring(bytes_.data(), capacity);
    }
    static void publish(RingWriter &ring, const std::string &data) {
        publish_frame(ring, reinterpret_cast<const uint8_t *>(data.data()),
                      static_cast<uint32_t>(data.size()));
    }
    // The next frame, or "none" or "duplicate".
    std::string take() {
        const TakenFrame frame = take_frame(bytes_.data(), capacity, last_);
        if (frame.result != TakeResult::frame) {
            return frame.result == TakeResult::duplicate ? "duplicate" : "none";
        }
        return {reinterpret_cast<const char *>(frame.data), frame.length};
    }

    std::vector<uint8_t> bytes_ = std::vector<uint8_t>(ring_size(capacity), 0);
    FrameIdentifier last_;
};

TEST_F(RingWriterTest, FillsSlotsFromTheReadIndexOn) {
    set_read_index(199);
    RingWriter ring = begin();
    publish(ring, "first");
    publish(ring, std::string(capacity, 'x'));
    EXPECT_EQ(get_u32(slot(199) + slot_length_at), 5U);
    EXPECT_EQ(slot(199)[slot_ready_at], 1);
    EXPECT_EQ(slot(1)[slot_ready_at], 0);
    EXPECT_EQ(ring_read_index(ring), 199U);
    EXPECT_EQ(take(), "first");
    EXPECT_FALSE(ring_is_drained(ring));
    EXPECT_EQ(take(), std::string(capacity, 'x'));
    EXPECT_TRUE(ring_is_drained(ring));
    EXPECT_EQ(take(), "none");
}

TEST_F(RingWriterTest, GoesBehindWhatAnEarlierProducerLeft) {
    RingWriter earlier = begin();
    publish(earlier, "one");
    publish(earlier, "two");
    RingWriter ring = begin();
    publish(ring, "mine");
    EXPECT_EQ(take(), "one");
    EXPECT_EQ(take(), "two");
    EXPECT_EQ(take(), "mine");
}

TEST_F(RingWriterTest, GoesOnWithTheIdentifiersOfAnEarlierProducer) {
    // With its own identifier the daemon would take the second frame for a duplicate of the first.
    for (const char *text : {"one", "two", "three"}) {
        RingWriter ring = begin();
        publish(ring, text);
        EXPECT_EQ(take(), text);
    }
}

TEST_F(RingWriterTest, CountsIdentifiersThroughAllThreeBytes) {
    RingWriter ring = begin();
    ring.identifier = 0xFFFF;
    publish(ring, "a");
    EXPECT_EQ(get_u16(slot(0) + slot_identifier_at), 0);
    EXPECT_EQ(slot(0)[slot_identifier_byte_at], 1);
    ring.identifier = 0xFFFFFF;
    publish(ring, "b");
    EXPECT_EQ(get_u16(slot(1) + slot_identifier_at), 0);
    EXPECT_EQ(slot(1)[slot_identifier_byte_at], 0);
    EXPECT_EQ(take(), "a");
    EXPECT_EQ(take(), "b");
}

TEST_F(RingWriterTest, HasNoRoomWhileTheRingIsFull) {
    RingWriter ring = begin();
    for (unsigned i = 0; i < ring_slot_count - 1; ++i) {
        ASSERT_TRUE(ring_has_room(ring));
        publish(ring, std::to_string(i));
    }
    EXPECT_FALSE(ring_has_room(ring));
    EXPECT_FALSE(ring_has_room(begin())) << "nor for another producer";
    EXPECT_EQ(take(), "0");
    EXPECT_TRUE(ring_has_room(ring));
    publish(ring, "more");
    EXPECT_FALSE(ring_has_room(ring));
}

TEST_F(RingWriterTest, LeavesTheFrameAloneThatTheReaderIsAt) {
    for (const uint16_t first : {uint16_t{0}, uint16_t{1}, uint16_t{198}, uint16_t{199}}) {
        std::fill(bytes_.begin(), bytes_.end(), 0);
        set_read_index(first);
        last_ = FrameIdentifier{};
        RingWriter ring = begin();
        publish(ring, "in hand");
        const TakenFrame frame = take_frame(bytes_.data(), capacity, last_);
        ASSERT_EQ(frame.result, TakeResult::frame);
        unsigned waiting = 0;
        for (; ring_has_room(ring); ++waiting) {
            ASSERT_LT(waiting, ring_slot_count);
            publish(ring, "newer");
        }
        EXPECT_EQ(waiting, ring_slot_count - 1);
        EXPECT_EQ(std::string(reinterpret_cast<const char *>(frame.data), frame.length), "in hand");
    }
}

TEST_F(RingWriterTest, SurvivesAReadIndexOutOfRange) {
    set_read_index(65535);
    RingWriter ring = begin();
    EXPECT_LT(ring.slot, ring_slot_count);
    publish(ring, "x");
    EXPECT_LT(ring_read_index(ring), ring_slot_count);
}

static std::vector<AccessUnit> split(const std::vector<uint8_t> &stream, size_t piece) {
    AccessUnitSplitter splitter;
    std::vector<AccessUnit> units;
    for (size_t at = 0; at < stream.size(); at += piece) {
        push_stream(splitter, stream.data() + at, std::min(piece, stream.size() - at), units);
    }
    end_stream(splitter, units);
    return units;
}

// SPS, PPS and two pictures, the first of two slices; a start code of four bytes and one of three.
static const std::vector<AccessUnit> pictures = {{0, 0, 0, 1,    0x67, 1, 2, 0, 0, 1, 0x68, 3,    4,
                                                  0, 0, 1, 0x65, 0x88, 5, 6, 0, 0, 1, 0x65, 0x40, 7,
                                                  0, 0, 1, 0x65, 0x20},
                                                 {0, 0, 0, 1, 0x41, 0x9A, 8, 0, 0, 3, 1, 9},
                                                 {0, 0, 1, 0x09, 0x10, 0, 0, 1, 0x41, 0x9A, 8}};

TEST(AccessUnits, AreCutBeforeEachPicture) {
    std::vector<uint8_t> stream;
    for (const AccessUnit &unit : pictures) {
        stream.insert(stream.end(), unit.begin(), unit.end());
    }
    for (size_t piece = 1; piece <= stream.size(); ++piece) {
        EXPECT_EQ(split(stream, piece), pictures) << piece;
    }
}

TEST(AccessUnits, AreGivenAsSoonAsTheNextBegins) {
    AccessUnitSplitter splitter;
    std::vector<AccessUnit> units;
    push_stream(splitter, pictures[0].data(), pictures[0].size(), units);
    push_stream(splitter, pictures[1].data(), 5, units);
    EXPECT_TRUE(units.empty());
    push_stream(splitter, pictures[1].data() + 5, 1, units);
    ASSERT_EQ(units.size(), 1U);
    EXPECT_EQ(units[0], pictures[0]);
}

TEST(AccessUnits, OfNothingAreNone) {
    EXPECT_TRUE(split({}, 1).empty());
    const std::vector<uint8_t> rest = {0, 0, 1};
    EXPECT_EQ(split(rest, 2), std::vector<AccessUnit>{rest});
}

TEST(AccessUnits, WithoutStartCodesDoNotFillTheMemory) {
    const std::vector<uint8_t> noise(size_t{1} << 20, 0xAA);
    AccessUnitSplitter splitter;
    std::vector<AccessUnit> units;
    for (int i = 0; i < 20; ++i) {
        push_stream(splitter, noise.data(), noise.size(), units);
        EXPECT_LE(splitter.buffer.size(), longest_access_unit);
    }
    EXPECT_EQ(units.size(), 2U);
}

TEST_F(RingWriterTest, IsInStepWhateverTheDaemonHasTaken) {
    set_read_index(198);
    RingWriter ring = begin();
    EXPECT_FALSE(ring_is_out_of_step(ring));
    for (const char *text : {"one", "two", "three"}) {
        publish(ring, text);
    }
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(ring_is_out_of_step(ring));
        take();
    }
    EXPECT_FALSE(ring_is_out_of_step(ring));
}

TEST_F(RingWriterTest, IsOutOfStepWhenTheContentsAreLost) {
    set_read_index(7);
    RingWriter ring = begin();
    publish(ring, "one");
    std::fill(bytes_.begin(), bytes_.end(), uint8_t{0});
    EXPECT_TRUE(ring_is_out_of_step(ring));
    ring = begin();
    EXPECT_FALSE(ring_is_out_of_step(ring));
    publish(ring, "two");
    EXPECT_EQ(take(), "two");
}
