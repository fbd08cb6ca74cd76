#include "beacon_web/block_joiner.h"
#include "beacon_web/picture_ring.h"
#include "beacon_web/video_track.h"

#include <gtest/gtest.h>

using namespace std::string_literals;

namespace {

const std::string start_code = "\0\0\0\1"s;
// 1280x720, main profile, level 3.1, frame numbers of 4 bits; made by an encoder.
const std::string sequence_set = "\x67\x4d\x40\x1f\xe8\x80\x28\x02\xdc\x80"s;
const std::string picture_set = "\x68\xee\x3c\x80"s;

ByteSpan bytes_of(const std::string &text) {
    return {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
}

// A slice with a frame number of 4 bits: ue(0), ue(0), ue(0), number.
std::string slice(int type, unsigned number, size_t size = 20) {
    std::string unit(1, static_cast<char>(0x60 | type));
    unit += static_cast<char>(0xE0U | number << 1U);
    return unit + std::string(size, 'x');
}

std::string stream_of(std::initializer_list<std::string> units) {
    std::string stream;
    for (const std::string &unit : units) {
        stream += start_code + unit;
    }
    return stream;
}

std::string key_stream(size_t size = 20) {
    return stream_of({sequence_set, picture_set, slice(5, 0, size)});
}

CodedPicture picture_of(const std::string &stream, bool is_after_gap = false) {
    return {stream, is_after_gap, false};
}

} // namespace

TEST(NalUnits, SplitsAtStartCodesOfBothLengths) {
    const std::string stream = "junk\0\0\1\x65 one\0\0\0\1\x41 two\0\0\0"s;
    const auto units = split_units(bytes_of(stream));
    ASSERT_EQ(units.size(), 2U);
    EXPECT_EQ(units[0].size(), 5U);
    EXPECT_EQ(nal_type(units[0]), nal_key_slice);
    EXPECT_EQ(units[1].size(), 5U);
    EXPECT_TRUE(split_units({}).empty());
    EXPECT_TRUE(split_units(bytes_of("\0\0\1"s)).empty());
}

TEST(NalUnits, KnowsABeginning) {
    EXPECT_TRUE(begins_with_start_code(bytes_of("\0\0\1\x65"s)));
    EXPECT_TRUE(begins_with_start_code(bytes_of("\0\0\0\1"s)));
    EXPECT_FALSE(begins_with_start_code(bytes_of("\1\0\0\1"s)));
    EXPECT_FALSE(begins_with_start_code(bytes_of("\0\0"s)));
}

TEST(ParameterSet, TellsSizeAndCodec) {
    const auto set = parse_sequence_set(bytes_of(sequence_set));
    ASSERT_TRUE(set);
    EXPECT_EQ(set->width, 1280U);
    EXPECT_EQ(set->height, 720U);
    EXPECT_EQ(set->frame_number_bits, 4U);
    EXPECT_EQ(codec_name(*set), "avc1.4D401F");
    for (size_t size = 0; size < sequence_set.size() - 1; ++size) {
        EXPECT_FALSE(parse_sequence_set(bytes_of(sequence_set.substr(0, size)))) << size;
    }
    EXPECT_EQ(frame_number(bytes_of(slice(1, 11)), *set), 11U);
    EXPECT_FALSE(frame_number(bytes_of("\x61"s), *set));
}

TEST(BlockJoiner, AShortBlockEndsAPicture) {
    BlockJoiner joiner;
    const std::string stream = key_stream(2000);
    EXPECT_TRUE(join_block(joiner, bytes_of(stream).first(1300), false).empty());
    const auto pictures = join_block(joiner, bytes_of(stream).subspan(1300), false);
    ASSERT_EQ(pictures.size(), 1U);
    EXPECT_EQ(pictures[0].stream, stream);
}

TEST(BlockJoiner, AFullLastBlockIsToldFromTheNextPicture) {
    BlockJoiner joiner;
    const std::string first = stream_of({slice(1, 1, 1294)});
    ASSERT_EQ(first.size(), 1300U);
    const std::string second = stream_of({slice(1, 2)});
    EXPECT_TRUE(join_block(joiner, bytes_of(first), false).empty());
    const auto pictures = join_block(joiner, bytes_of(second), false);
    ASSERT_EQ(pictures.size(), 2U);
    EXPECT_EQ(pictures[1].stream, second.substr(1)); // a zero byte went to the end of the first
    EXPECT_FALSE(pictures[1].is_after_loss);
}

TEST(BlockJoiner, ParameterSetsOfTheirOwnGoWithTheNextPicture) {
    BlockJoiner joiner;
    const std::string sets = stream_of({sequence_set, picture_set});
    EXPECT_TRUE(join_block(joiner, bytes_of(sets), false).empty());
    const std::string key = stream_of({slice(5, 0)});
    const auto pictures = join_block(joiner, bytes_of(key), false);
    ASSERT_EQ(pictures.size(), 1U);
    EXPECT_EQ(pictures[0].stream, sets + key);
}

TEST(BlockJoiner, BeginsAtAStartCode) {
    BlockJoiner joiner;
    EXPECT_TRUE(join_block(joiner, bytes_of("the end of a picture"s), false).empty());
    const auto pictures = join_block(joiner, bytes_of(key_stream()), false);
    ASSERT_EQ(pictures.size(), 1U);
    EXPECT_TRUE(pictures[0].is_after_loss);
}

TEST(BlockJoiner, ALossInsideAPictureIsCertain) {
    BlockJoiner joiner;
    join_block(joiner, bytes_of(key_stream()), false);
    const std::string stream = stream_of({slice(1, 1, 4000)});
    EXPECT_TRUE(join_block(joiner, bytes_of(stream).first(1300), false).empty());
    EXPECT_TRUE(join_block(joiner, bytes_of(stream).subspan(2600, 1300), true).empty());
    EXPECT_TRUE(join_block(joiner, bytes_of(stream).subspan(3900), false).empty());
    const auto next = join_block(joiner, bytes_of(stream_of({slice(1, 2)})), false);
    ASSERT_EQ(next.size(), 1U);
    EXPECT_TRUE(next[0].is_after_loss);
}

TEST(BlockJoiner, AGapBetweenPicturesMayBeNoLoss) {
    BlockJoiner joiner;
    join_block(joiner, bytes_of(key_stream()), false);
    const auto next = join_block(joiner, bytes_of(stream_of({slice(1, 1)})), true);
    ASSERT_EQ(next.size(), 1U);
    EXPECT_TRUE(next[0].is_after_gap);
    EXPECT_FALSE(next[0].is_after_loss);
}

TEST(BlockJoiner, WhatNeverEndsIsGivenUp) {
    BlockJoiner joiner;
    const std::string block = start_code + std::string(1296, 'x');
    for (int i = 0; i < 4000; ++i) {
        join_block(joiner, bytes_of(block), false);
        ASSERT_LT(joiner.held.size(), 3U << 20U);
    }
}

TEST(VideoTrack, BeginsWithAKeyPicture) {
    VideoTrack track;
    const TimePoint now{};
    EXPECT_FALSE(take_picture(track, picture_of(stream_of({slice(1, 1)})), now));
    const auto key = take_picture(track, picture_of(key_stream()), now);
    ASSERT_TRUE(key);
    EXPECT_TRUE(key->is_key);
    EXPECT_EQ(key->start->codec, "avc1.4D401F");
    EXPECT_EQ(key->start->header.substr(4, 4), "ftyp");
    const auto next = take_picture(track, picture_of(stream_of({slice(1, 1)})), now);
    ASSERT_TRUE(next);
    EXPECT_FALSE(next->is_key);
    EXPECT_EQ(next->start, key->start);
    EXPECT_EQ(track.dropped, 1U);
}

TEST(VideoTrack, AKeyPictureWithoutParameterSetsIsOfNoUse) {
    VideoTrack track;
    EXPECT_FALSE(take_picture(track, picture_of(stream_of({slice(5, 0)})), {}));
}

TEST(VideoTrack, ALossLastsUntilTheNextKeyPicture) {
    VideoTrack track;
    ASSERT_TRUE(take_picture(track, picture_of(key_stream()), {}));
    EXPECT_FALSE(take_picture(track, {stream_of({slice(1, 1)}), true, true}, {}));
    EXPECT_FALSE(take_picture(track, picture_of(stream_of({slice(1, 2)})), {}));
    EXPECT_TRUE(take_picture(track, {key_stream(), true, true}, {}));
    EXPECT_TRUE(take_picture(track, picture_of(stream_of({slice(1, 1)})), {}));
}

TEST(VideoTrack, AGapIsALossWhenAFrameNumberIsMissing) {
    VideoTrack track;
    ASSERT_TRUE(take_picture(track, picture_of(key_stream()), {}));
    // Another client's answer took a number.
    EXPECT_TRUE(take_picture(track, picture_of(stream_of({slice(1, 1)}), true), {}));
    EXPECT_FALSE(take_picture(track, picture_of(stream_of({slice(1, 3)}), true), {}));
    ASSERT_TRUE(take_picture(track, picture_of(key_stream()), {}));
    for (unsigned number = 1; number <= 40; ++number) {
        EXPECT_TRUE(take_picture(track, picture_of(stream_of({slice(1, number % 16)}), true), {}));
    }
}

TEST(VideoTrack, DurationsFollowTheArrivals) {
    VideoTrack track;
    TimePoint now = TimePoint{} + std::chrono::hours(1);
    uint32_t duration = take_picture(track, picture_of(key_stream()), now)->duration;
    EXPECT_EQ(duration, movie_timescale / 30);
    for (int i = 0; i < 300; ++i) {
        now += std::chrono::milliseconds(10);
        duration = take_picture(track, picture_of(key_stream()), now)->duration;
    }
    EXPECT_NEAR(duration, movie_timescale / 100, 5);
    now += std::chrono::minutes(1);
    EXPECT_EQ(take_picture(track, picture_of(key_stream()), now)->duration, duration);
}

TEST(VideoTrack, NewParameterSetsMakeANewStart) {
    VideoTrack track;
    const auto before = take_picture(track, picture_of(key_stream()), {});
    const std::string other = "\x67\x42\x40\x1f\xe8\x80\x28\x02\xdc\x80"s;
    const auto after =
        take_picture(track, picture_of(stream_of({other, picture_set, slice(5, 0)})), {});
    ASSERT_TRUE(before && after);
    EXPECT_NE(before->start, after->start);
    EXPECT_EQ(after->start->codec, "avc1.42401F");
}

TEST(VideoTrack, KeepsParameterSetsByTheirNumbers) {
    VideoTrack track;
    const std::string second_set = "\x67\x42\x40\x1f\x5a\x20\x0a\x00\xb7\x20"s; // number 1
    const std::string second_picture_set = "\x68\x4a\xe3\xc8"s;                 // 1, of set 1
    const std::string sets = stream_of({sequence_set, second_set, picture_set, second_picture_set});
    const auto first = take_picture(track, picture_of(sets + stream_of({slice(5, 0)})), {});
    ASSERT_TRUE(first);
    EXPECT_EQ(first->start->codec, "avc1.4D401F");
    for (const std::string &set : {sequence_set, second_set, picture_set, second_picture_set}) {
        EXPECT_NE(first->start->header.find(set), std::string::npos);
    }
    const auto same = take_picture(track, picture_of(sets + stream_of({slice(5, 0)})), {});
    ASSERT_TRUE(same);
    EXPECT_EQ(same->start, first->start);
    const std::string refers_to_second = "\x65\xd0 and so on"s; // ue(0), ue(0), ue(1)
    const auto second = take_picture(track, picture_of(stream_of({refers_to_second})), {});
    ASSERT_TRUE(second);
    EXPECT_EQ(second->start->codec, "avc1.42401F");
    const std::string refers_to_none = "\x65\xd8 and so on"s; // ue(0), ue(0), ue(2)
    EXPECT_FALSE(take_picture(track, picture_of(stream_of({refers_to_none})), {}));
}

TEST(VideoTrack, NewParameterSetsCountFromTheNextKeyPicture) {
    VideoTrack track;
    ASSERT_TRUE(take_picture(track, picture_of(key_stream()), {}));
    const std::string other = "\x68\xee\x3c\xb0"s;
    EXPECT_FALSE(take_picture(track, picture_of(stream_of({other, slice(1, 1)})), {}));
    EXPECT_TRUE(take_picture(track, picture_of(stream_of({slice(5, 0)})), {}));
}

TEST(ParameterSet, KeepsWhatAMovieHeaderCanHold) {
    ParameterSets sets;
    EXPECT_TRUE(keep_set(sets, bytes_of(sequence_set)));
    EXPECT_FALSE(keep_set(sets, bytes_of(sequence_set)));
    EXPECT_FALSE(keep_set(sets, bytes_of(slice(5, 0))));
    EXPECT_FALSE(keep_set(sets, bytes_of("\x68"s)));
    EXPECT_FALSE(keep_set(sets, bytes_of(picture_set + std::string(2000, 'x'))));
    EXPECT_TRUE(keep_set(sets, bytes_of("\x68\x01\xfe"s)));              // number 254
    EXPECT_FALSE(keep_set(sets, bytes_of("\x68\x00\x80\x00"s)));         // number 255
    EXPECT_FALSE(keep_set(sets, bytes_of("\x67\x4d\x40\x1f\x04\x10"s))); // number 31
    EXPECT_EQ(sets.sequence.size(), 1U);
    EXPECT_EQ(sets.picture.size(), 1U);
}

TEST(MovieFragment, HasItsTimesWhereTheyAreStamped) {
    const std::string unit = slice(5, 0);
    const std::vector<ByteSpan> units{bytes_of(sequence_set), bytes_of(unit)};
    std::string fragment = movie_fragment(units, true);
    ASSERT_EQ(fragment.size(), fragment_head_size + 4 + unit.size());
    const std::string before = fragment;
    stamp_fragment(reinterpret_cast<uint8_t *>(fragment.data()), 0x01020304, 0x1112131415161718,
                   0x21222324);
    EXPECT_EQ(fragment.substr(12, 4), "mfhd");
    EXPECT_EQ(fragment.substr(20, 4), "\1\2\3\4");
    EXPECT_EQ(fragment.substr(52, 4), "tfdt");
    EXPECT_EQ(fragment.substr(60, 8), "\x11\x12\x13\x14\x15\x16\x17\x18");
    EXPECT_EQ(fragment.substr(72, 4), "trun");
    EXPECT_EQ(fragment.substr(88, 4), "\x21\x22\x23\x24");
    EXPECT_EQ(fragment.substr(104, 4), "mdat");
    EXPECT_EQ(fragment.substr(108), "\0\0\0\x16"s + unit);
    size_t changed = 0;
    for (size_t i = 0; i < before.size(); ++i) {
        changed += before[i] != fragment[i] ? 1 : 0;
    }
    EXPECT_EQ(changed, 16U);
}

namespace {

Fragment fragment_of(bool is_key, size_t size = 200) {
    return {std::make_shared<const std::string>(size, 'f'), nullptr, 3000, is_key};
}

void pass(Viewing &viewing, const Fragment &picture) {
    std::string copy = *picture.data;
    pass_picture(viewing, picture, reinterpret_cast<uint8_t *>(copy.data()));
}

} // namespace

TEST(PictureRing, ANewcomerBeginsAtTheLastKeyPicture) {
    PictureRing ring;
    Viewing viewing;
    EXPECT_EQ(next_picture(ring, viewing), nullptr);
    add_picture(ring, fragment_of(true));
    for (int i = 0; i < 20; ++i) {
        add_picture(ring, fragment_of(false));
    }
    add_picture(ring, fragment_of(true));
    add_picture(ring, fragment_of(false));
    ASSERT_NE(next_picture(ring, viewing), nullptr);
    EXPECT_TRUE(next_picture(ring, viewing)->is_key);
    EXPECT_EQ(viewing.next, 21U);
    EXPECT_EQ(viewing.skipped, 0U);
}

TEST(PictureRing, TimesHaveNoGapsWhenPicturesAreSkipped) {
    PictureRing ring;
    Viewing viewing;
    add_picture(ring, fragment_of(true));
    pass(viewing, *next_picture(ring, viewing));
    for (int i = 0; i < 30; ++i) {
        add_picture(ring, fragment_of(false));
    }
    add_picture(ring, fragment_of(true));
    ASSERT_TRUE(next_picture(ring, viewing)->is_key);
    EXPECT_EQ(viewing.skipped, 30U);
    pass(viewing, *next_picture(ring, viewing));
    EXPECT_EQ(viewing.time, 6000U);
    EXPECT_EQ(viewing.sequence, 2U);
    EXPECT_EQ(next_picture(ring, viewing), nullptr);
}

TEST(PictureRing, AViewerWhoIsALittleBehindMissesNothing) {
    PictureRing ring;
    Viewing viewing;
    add_picture(ring, fragment_of(true));
    pass(viewing, *next_picture(ring, viewing));
    for (const bool is_key : {false, false, true, false}) {
        add_picture(ring, fragment_of(is_key));
    }
    for (int i = 0; i < 4; ++i) {
        pass(viewing, *next_picture(ring, viewing));
    }
    EXPECT_EQ(viewing.skipped, 0U);
}

TEST(PictureRing, AnEndlessGroupIsBounded) {
    PictureRing ring;
    add_picture(ring, fragment_of(true));
    for (int i = 0; i < 3000; ++i) {
        add_picture(ring, fragment_of(false, 100000));
        ASSERT_LE(ring.bytes, largest_ring);
    }
    Viewing newcomer;
    EXPECT_EQ(next_picture(ring, newcomer), nullptr);
    add_picture(ring, fragment_of(true));
    EXPECT_NE(next_picture(ring, newcomer), nullptr);
}
