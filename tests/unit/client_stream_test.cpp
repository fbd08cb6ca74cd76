// What beaconctl makes of packets: headers, losses, the start of a video, pieces of a file.
#include "client/file_transfer.h"
#include "client/packet.h"
#include "client/stream_start.h"

#include <cstring>
#include <gtest/gtest.h>
#include <limits>

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

TEST(Packet, KindsAreTold) {
    Bytes status(41);
    status[0] = 4;
    const auto kind = [](uint8_t type, const Bytes &payload, auto is_kind) {
        const Bytes bytes = packet_bytes(type, 0, payload);
        return is_kind(*parse_packet(bytes));
    };
    EXPECT_TRUE(kind(0, status, is_status));
    EXPECT_FALSE(kind(1, status, is_status));
    EXPECT_FALSE(kind(0, Bytes(40, 4), is_status));
    EXPECT_TRUE(kind(0, {8, 2}, is_menu_notice));
    EXPECT_FALSE(kind(0, {8}, is_menu_notice));
}

TEST(Packet, TheBoardsNameLosesItsPadding) {
    Bytes payload = {1, 9, 0, 3};
    for (const char c : std::string("My board") + std::string(32, ' ')) {
        payload.push_back(static_cast<uint8_t>(c));
    }
    const Bytes bytes = packet_bytes(0, 0, payload);
    const auto info = parse_info(*parse_packet(bytes));
    ASSERT_TRUE(info);
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
    EXPECT_EQ(count_packet(count, 100), Arrival::in_order); // the first is no loss
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

// Feeds the stream in pieces of `size` and returns what is to be written.
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

static Bytes piece_payload(uint16_t length, uint32_t offset, uint32_t size, size_t data) {
    Bytes payload = {static_cast<uint8_t>(length), static_cast<uint8_t>(length >> 8)};
    for (const uint32_t number : {offset, size}) {
        for (unsigned i = 0; i < 4; ++i) {
            payload.push_back(static_cast<uint8_t>(number >> 8 * i));
        }
    }
    payload.resize(10 + data, 'd');
    return payload;
}

TEST(FilePiece, IsReadAsItsLayoutSays) {
    const Bytes bytes = packet_bytes(4, 0, piece_payload(300, 70000, 123456789, 300));
    const auto piece = parse_piece(*parse_packet(bytes));
    ASSERT_TRUE(piece);
    EXPECT_EQ(piece->offset, 70000U);
    EXPECT_EQ(piece->full_size, 123456789U);
    EXPECT_EQ(piece->data.size(), 300U);
    const Bytes wrong_length = packet_bytes(4, 0, piece_payload(300, 0, 0, 299));
    EXPECT_FALSE(parse_piece(*parse_packet(wrong_length)));
    const Bytes wrong_type = packet_bytes(0, 0, piece_payload(3, 0, 0, 3));
    EXPECT_FALSE(parse_piece(*parse_packet(wrong_type)));
    const Bytes short_payload = packet_bytes(4, 0, Bytes(9));
    EXPECT_FALSE(parse_piece(*parse_packet(short_payload)));
}

static const Bytes data(60000, 'd');

static FilePiece piece(uint32_t offset, uint32_t size, size_t length) {
    return {offset, size, {data.data(), length}};
}

// A transfer whose first request has been answered.
static FileTransfer after_reset() {
    FileTransfer transfer;
    EXPECT_EQ(take_piece(transfer, piece(reset_offset, 77, 0)), PieceVerdict::taken);
    EXPECT_EQ(transfer.offset, probe_offset);
    return transfer;
}

TEST(FileTransfer, ProbesThenTakesPieceAfterPiece) {
    FileTransfer transfer = after_reset();
    EXPECT_EQ(take_piece(transfer, piece(0, 100, 50)), PieceVerdict::not_expected);
    EXPECT_EQ(take_piece(transfer, piece(reset_offset, 77, 0)), PieceVerdict::not_expected);
    EXPECT_EQ(take_piece(transfer, piece(probe_offset, 100, 0)), PieceVerdict::taken);
    EXPECT_EQ(transfer.offset, 0U);
    EXPECT_EQ(take_piece(transfer, piece(0, 100, 60)), PieceVerdict::taken);
    EXPECT_EQ(take_piece(transfer, piece(0, 100, 60)), PieceVerdict::not_expected);
    EXPECT_EQ(take_piece(transfer, piece(60, 100, 40)), PieceVerdict::complete);
    EXPECT_EQ(transfer.offset, 100U);
}

TEST(FileTransfer, TellsAMissingFileFromAnEmptyOne) {
    FileTransfer missing;
    EXPECT_EQ(take_piece(missing, piece(0, 0, 0)), PieceVerdict::missing);
    FileTransfer empty = after_reset();
    EXPECT_EQ(take_piece(empty, piece(probe_offset, 0, 0)), PieceVerdict::complete);
}

TEST(FileTransfer, ResumesWhereItIsTold) {
    FileTransfer transfer = after_reset();
    transfer.start = 70;
    EXPECT_EQ(take_piece(transfer, piece(probe_offset, 100, 0)), PieceVerdict::taken);
    EXPECT_EQ(take_piece(transfer, piece(70, 100, 30)), PieceVerdict::complete);
    FileTransfer longer = after_reset();
    longer.start = 101;
    EXPECT_EQ(take_piece(longer, piece(probe_offset, 100, 0)), PieceVerdict::changed);
}

TEST(FileTransfer, ASecondProbeMustTellTheSameSize) {
    FileTransfer transfer = after_reset();
    take_piece(transfer, piece(probe_offset, 100, 0));
    take_piece(transfer, piece(0, 100, 60));
    transfer.start = 60;
    transfer.offset = probe_offset;
    EXPECT_EQ(take_piece(transfer, piece(probe_offset, 200, 0)), PieceVerdict::changed);
    EXPECT_EQ(take_piece(transfer, piece(probe_offset, 100, 0)), PieceVerdict::taken);
    EXPECT_EQ(transfer.offset, 60U);
}

TEST(FileTransfer, SeesWhatCannotBeRight) {
    FileTransfer large = after_reset();
    EXPECT_EQ(take_piece(large, piece(probe_offset, 0x7FFFFFFF, 0)), PieceVerdict::too_large);
    FileTransfer transfer = after_reset();
    take_piece(transfer, piece(probe_offset, 100, 0));
    EXPECT_EQ(take_piece(transfer, piece(0, 200, 50)), PieceVerdict::changed);
    EXPECT_EQ(take_piece(transfer, piece(0, 100, 101)), PieceVerdict::changed);
    EXPECT_EQ(take_piece(transfer, piece(0, 100, 0)), PieceVerdict::ended_early);
    EXPECT_EQ(transfer.offset, 0U);
}

TEST(FileTransfer, AsksWithOneJsonCommand) {
    EXPECT_EQ(piece_request("/a \"b\".mp4", 59990),
              R"({"cmd":"file","param":"get","value":"/a \"b\".mp4","value2":"59990"})");
}

TEST(PieceClock, WaitsLongerEachTimeAndLearns) {
    PieceClock clock;
    const double first = piece_patience(clock);
    clock.misses = 1;
    EXPECT_DOUBLE_EQ(piece_patience(clock), 2 * first);
    clock.misses = std::numeric_limits<int>::max();
    EXPECT_DOUBLE_EQ(piece_patience(clock), 2.0);
    for (int i = 0; i < 50; ++i) {
        note_piece(clock, 0.001);
    }
    EXPECT_DOUBLE_EQ(piece_patience(clock), 0.1);
}
