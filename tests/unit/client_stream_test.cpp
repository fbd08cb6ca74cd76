// How a client reads packets: headers, kinds, losses, the start of a video.
#include "client/packet.h"
#include "client/sequence_count.h"
#include "client/stream_start.h"

#include <gtest/gtest.h>

using Bytes = std::vector<uint8_t>;

static Bytes packet_bytes(uint8_t type, uint32_t sequence, const Bytes &payload) {
    Bytes bytes = {'R', type, static_cast<uint8_t>(payload.size() & 0xFF),
                   static_cast<uint8_t>(payload.size() >> 8)};
    for (unsigned i = 0; i < 4; ++i) {
        bytes.push_back(static_cast<uint8_t>(sequence >> 8 * i));
    }
    bytes.insert(bytes.end(), {1, 0, 0, 0});
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
}

TEST(Packet, IsReadAsItsLayoutSays) {
    const Bytes bytes = packet_bytes(2, 0x01020304, {7, 8, 9});
    const auto packet = parse_packet(bytes);
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->type, 2);
    EXPECT_EQ(packet->sequence, 0x01020304U);
    EXPECT_EQ(Bytes(packet->payload.begin(), packet->payload.end()), (Bytes{7, 8, 9}));
}

TEST(Packet, AnythingElseIsRefused) {
    const Bytes good = packet_bytes(0, 0, {1, 2});
    for (size_t length = 0; length < good.size(); ++length) {
        EXPECT_FALSE(parse_packet({good.data(), length})) << length;
    }
    for (const size_t at : {0U, 2U, 3U, 8U, 11U}) {
        Bytes bad = good;
        bad[at] ^= 1;
        EXPECT_FALSE(parse_packet(bad)) << at;
    }
}

static PacketKind kind_of(uint8_t type, const Bytes &payload) {
    const Bytes bytes = packet_bytes(type, 0, payload);
    return packet_kind(*parse_packet(bytes));
}

// A payload of `size` bytes that begins with `first`.
static Bytes beginning_with(uint8_t first, size_t size) {
    Bytes payload(size);
    payload[0] = first;
    return payload;
}

TEST(Packet, KindsOfDataAreToldByTheirBeginningAndLength) {
    EXPECT_EQ(kind_of(0, beginning_with(1, 44)), PacketKind::info);
    EXPECT_EQ(kind_of(0, beginning_with(4, 41)), PacketKind::status);
    EXPECT_EQ(kind_of(0, beginning_with(8, 2)), PacketKind::menu_notice);
    EXPECT_EQ(kind_of(0, beginning_with('{', 2)), PacketKind::data);
    EXPECT_EQ(kind_of(0, {}), PacketKind::data);
    for (const uint8_t first : Bytes{1, 4, 8}) {
        for (const size_t size : {1U, 3U, 40U, 42U, 43U, 45U}) {
            EXPECT_EQ(kind_of(0, beginning_with(first, size)), PacketKind::data);
        }
    }
}

TEST(Packet, OtherKindsAreToldByTheType) {
    const Bytes status = beginning_with(4, 41);
    EXPECT_EQ(kind_of(1, status), PacketKind::video);
    EXPECT_EQ(kind_of(2, status), PacketKind::audio);
    EXPECT_EQ(kind_of(3, status), PacketKind::camera);
    EXPECT_EQ(kind_of(4, status), PacketKind::file_piece);
    EXPECT_EQ(kind_of(5, status), PacketKind::unknown);
}

TEST(Packet, TheBoardsNameLosesItsPadding) {
    Bytes payload = {1, 9, 0, 3};
    for (const char c : std::string("My board") + std::string(32, ' ')) {
        payload.push_back(static_cast<uint8_t>(c));
    }
    const Bytes bytes = packet_bytes(0, 70000, payload);
    const auto info = parse_info(*parse_packet(bytes));
    ASSERT_TRUE(info);
    EXPECT_EQ(info->sequence, 70000U);
    EXPECT_EQ(info->name, "My board");
    EXPECT_EQ(info->app_type, 9);
    EXPECT_EQ(info->client_count, 3);
}

TEST(Packet, AClientsDatagramIsHeaderAndPayload) {
    const std::string expected = "R" + std::string(11, '\0') + "\2\1";
    EXPECT_EQ(client_datagram("\2\1"), expected);
}

TEST(Packet, GimbalValuesArePartsOf32767) {
    EXPECT_EQ(gimbal_payload(1, -1, 0), std::string("\5\0\xFF\x7F\x01\x80\0\0", 8));
    EXPECT_EQ(gimbal_payload(0.5, 0, -0.25).substr(2), std::string("\x00\x40\0\0\x00\xE0", 6));
}

TEST(SequenceCount, CountsWhatIsPassedOver) {
    SequenceCount count;
    EXPECT_EQ(count_packet(count, 100), Arrival::in_order); // the first is not a loss
    EXPECT_EQ(count_packet(count, 101), Arrival::in_order);
    EXPECT_EQ(count_packet(count, 105), Arrival::in_order);
    EXPECT_EQ(count.lost, 3U);
    EXPECT_EQ(count_packet(count, 103), Arrival::late);
    EXPECT_EQ(count.lost, 2U);
    EXPECT_EQ(count_packet(count, 103), Arrival::repeated);
    EXPECT_EQ(count_packet(count, 105), Arrival::repeated);
    EXPECT_EQ(count.lost, 2U);
    EXPECT_EQ(count_packet(count, 106), Arrival::in_order);
}

TEST(SequenceCount, GoesOverTheEndOfTheNumbers) {
    SequenceCount count;
    count_packet(count, 0xFFFFFFFE);
    EXPECT_EQ(count_packet(count, 1), Arrival::in_order);
    EXPECT_EQ(count.lost, 2U);
    EXPECT_EQ(count_packet(count, 0xFFFFFFFF), Arrival::late);
    EXPECT_EQ(count_packet(count, 0), Arrival::late);
    EXPECT_EQ(count.lost, 0U);
}

TEST(SequenceCount, BeginsAnewWithTheDaemon) {
    SequenceCount count;
    count_packet(count, 5000);
    EXPECT_EQ(count_packet(count, 3), Arrival::in_order);
    EXPECT_EQ(count_packet(count, 4), Arrival::in_order);
    EXPECT_EQ(count.lost, 0U);
}

TEST(SequenceCount, RemembersABoundedNumber) {
    SequenceCount count;
    count_packet(count, 0);
    count_packet(count, 1000001);
    count_packet(count, 2000002);
    EXPECT_EQ(count.lost, 2000000U);
    EXPECT_LE(count.missing.size(), 1024U);
    EXPECT_EQ(count_packet(count, 2000001), Arrival::late);
}

TEST(StreamGap, IsSeenByEachStreamOnce) {
    SequenceCount count;
    StreamGap video;
    StreamGap audio;
    count_packet(count, 10);
    EXPECT_FALSE(passes_gap(video, count));
    count_packet(count, 12);
    EXPECT_TRUE(passes_gap(video, count));
    count_packet(count, 13);
    EXPECT_FALSE(passes_gap(video, count));
    EXPECT_TRUE(passes_gap(audio, count));
    EXPECT_FALSE(passes_gap(audio, count));
    EXPECT_FALSE(is_missing_between(count, 12, 13));
    EXPECT_TRUE(is_missing_between(count, 10, 12));
    count_packet(count, 11);
    EXPECT_FALSE(is_missing_between(count, 10, 13));
}

TEST(SequenceCount, KnowsWhatIsMissingWhereTheNumbersBeginAgain) {
    SequenceCount count;
    uint32_t number = 0xFFFF0000;
    for (int i = 0; i < 2000; ++i) { // more than are remembered
        count_packet(count, number += 2);
    }
    count_packet(count, 0xFFFFFFFE);
    count_packet(count, 1);
    EXPECT_TRUE(is_missing_between(count, 0xFFFFFFFE, 1));
    EXPECT_FALSE(is_missing_between(count, 1, 2));
    count_packet(count, 2);
    count_packet(count, 4);
    EXPECT_TRUE(is_missing_between(count, 2, 4));
}

// Feeds the stream in pieces of `size` and returns what should be written.
static std::string started(const std::string &stream, size_t size) {
    StreamStart start;
    std::string written;
    for (size_t at = 0; at < stream.size(); at += size) {
        const std::string piece = stream.substr(at, size);
        written += take_stream(
            start, {reinterpret_cast<const uint8_t *>(piece.data()), piece.size()}, false);
    }
    return written;
}

TEST(StreamStart, BeginsAtAParameterSetHoweverTheStreamIsCut) {
    const std::string before("\x41\0\0\1\x41\x9A\0\0\0\1\x06\x05", 12);
    const std::string video("\0\0\0\1\x67\x42\0\0\0\1\x68\0\0\1\x65\x88", 16);
    for (size_t size = 1; size <= before.size() + video.size(); ++size) {
        EXPECT_EQ(started(before + video, size), video) << size;
        EXPECT_EQ(started(before + video.substr(1), size), video.substr(1)) << size;
    }
    EXPECT_EQ(started(video, 3), video);
    EXPECT_EQ(started(before, 2), "");
}

TEST(StreamStart, PiecesOnBothSidesOfALossAreNotJoined) {
    StreamStart start;
    const Bytes first = {9, 0, 0, 1};
    const Bytes second = {0x67, 1};
    EXPECT_EQ(take_stream(start, first, false), "");
    EXPECT_EQ(take_stream(start, second, true), "");
    EXPECT_FALSE(start.found);
}
