// Fetching a file: pieces, the transfer, and the fetch over time.
#include "client/file_fetch.h"

#include <gtest/gtest.h>
#include <limits>
#include <vector>

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

// A fetch and the clock that it sees.
class FileFetchTest : public ::testing::Test {
protected:
    double seconds_ = 100; // since the clock started
    FileFetch fetch_ = begin_fetch("/media/a.mp4", 5.0, now());

    TimePoint now() const {
        return TimePoint{} + from_seconds(seconds_);
    }
    FetchStep step() {
        return step_fetch(fetch_, now());
    }
    // Shows it a piece of bytes 'd'.
    FetchEvent give(uint32_t offset, uint32_t size, size_t length) {
        bytes_ =
            packet_bytes(4, 0, piece_payload(static_cast<uint16_t>(length), offset, size, length));
        return take_packet(fetch_, *parse_packet(bytes_), now());
    }
    // Steps, checks that `offset` is requested, and answers.
    FetchEvent asked_and_given(uint32_t offset, uint32_t size, size_t length) {
        EXPECT_EQ(step(), FetchStep::ask);
        EXPECT_EQ(fetch_payload(fetch_), piece_request("/media/a.mp4", offset));
        return give(offset, size, length);
    }
    // Steps until the data is requested from `start` on.
    void learn_size(uint32_t size, uint32_t start) {
        EXPECT_EQ(asked_and_given(reset_offset, size, 0).news, FetchNews::nothing);
        const FetchEvent event = asked_and_given(probe_offset, size, 0);
        EXPECT_EQ(event.news, FetchNews::size);
        EXPECT_EQ(event.offset, start);
        EXPECT_EQ(fetch_.transfer.size, size);
    }

private:
    Bytes bytes_;
};

TEST_F(FileFetchTest, GivesTheSizeThenDataUntilItIsComplete) {
    learn_size(100, 0);
    const FetchEvent first = asked_and_given(0, 100, 60);
    EXPECT_EQ(first.news, FetchNews::data);
    EXPECT_EQ(first.offset, 0U);
    EXPECT_EQ(Bytes(first.data.begin(), first.data.end()), Bytes(60, 'd'));
    const FetchEvent last = asked_and_given(60, 100, 40);
    EXPECT_EQ(last.news, FetchNews::complete);
    EXPECT_EQ(last.offset, 60U);
    EXPECT_EQ(last.data.size(), 40U);
}

TEST_F(FileFetchTest, AnEmptyFileIsCompleteWithItsSize) {
    asked_and_given(reset_offset, 0, 0);
    const FetchEvent event = asked_and_given(probe_offset, 0, 0);
    EXPECT_EQ(event.news, FetchNews::complete);
    EXPECT_TRUE(event.data.empty());
}

TEST_F(FileFetchTest, AsksAgainAfterAWhileAndGivesUpAfterItsTimeout) {
    EXPECT_EQ(step(), FetchStep::ask);
    EXPECT_EQ(step(), FetchStep::wait);
    const Duration first = fetch_.due - now();
    seconds_ = seconds_between(TimePoint{}, fetch_.due) + 0.001;
    EXPECT_EQ(step(), FetchStep::ask);
    EXPECT_GT(fetch_.due - now(), first);
    seconds_ = 105.1;
    EXPECT_EQ(step(), FetchStep::silent);
}

TEST_F(FileFetchTest, AnAnswerPutsTheTimeoutOff) {
    step();
    seconds_ = 104;
    EXPECT_EQ(step(), FetchStep::ask);
    EXPECT_EQ(give(reset_offset, 100, 0).news, FetchNews::nothing);
    EXPECT_EQ(step(), FetchStep::ask);
    seconds_ = 108.9;
    EXPECT_EQ(step(), FetchStep::ask);
    seconds_ = 109.1;
    fetch_.due = now();
    EXPECT_EQ(step(), FetchStep::silent);
}

TEST_F(FileFetchTest, OtherPacketsAndSecondAnswersAreNothing) {
    learn_size(100, 0);
    asked_and_given(0, 100, 60);
    EXPECT_EQ(give(60, 100, 40).news, FetchNews::nothing); // not asked for yet
    EXPECT_EQ(step(), FetchStep::ask);
    EXPECT_EQ(give(0, 100, 60).news, FetchNews::nothing);
    const Bytes video = packet_bytes(1, 0, Bytes(20));
    EXPECT_EQ(take_packet(fetch_, *parse_packet(video), now()).news, FetchNews::nothing);
    EXPECT_EQ(step(), FetchStep::wait);
    EXPECT_EQ(give(60, 100, 40).news, FetchNews::complete);
}

TEST_F(FileFetchTest, ResumesAndComparesTheTail) {
    resume_fetch(fetch_, 60, "ddd");
    learn_size(100, 57);
    const FetchEvent event = asked_and_given(57, 100, 43);
    EXPECT_EQ(event.news, FetchNews::complete);
    EXPECT_EQ(event.offset, 57U);
}

TEST_F(FileFetchTest, TheTailMustBeTheFiles) {
    resume_fetch(fetch_, 60, "dxd");
    learn_size(100, 57);
    EXPECT_EQ(asked_and_given(57, 100, 43).news, FetchNews::differs);
}

TEST_F(FileFetchTest, WhatIsThereMustNotBeLongerThanTheFile) {
    resume_fetch(fetch_, 200, "d");
    asked_and_given(reset_offset, 100, 0);
    EXPECT_EQ(asked_and_given(probe_offset, 100, 0).news, FetchNews::shorter);
}

TEST_F(FileFetchTest, AnUncertainSizeIsAskedForAgain) {
    learn_size(100, 0);
    asked_and_given(0, 100, 60);
    EXPECT_EQ(asked_and_given(60, 0, 40).news, FetchNews::nothing); // somebody made it forgotten
    asked_and_given(reset_offset, 0, 0);
    EXPECT_EQ(asked_and_given(probe_offset, 100, 0).news, FetchNews::nothing);
    EXPECT_EQ(asked_and_given(60, 100, 40).news, FetchNews::complete);
}

TEST_F(FileFetchTest, ANewSizeEndsIt) {
    learn_size(100, 0);
    asked_and_given(0, 120, 60);
    asked_and_given(reset_offset, 120, 0);
    EXPECT_EQ(asked_and_given(probe_offset, 120, 0).news, FetchNews::changed);
}

TEST_F(FileFetchTest, ASizeThatStaysUncertainEndsIt) {
    learn_size(100, 0);
    FetchNews news = FetchNews::nothing;
    int rounds = 0;
    while (news == FetchNews::nothing && rounds < 100) {
        ++rounds;
        news = asked_and_given(0, 99, 60).news;
        if (news == FetchNews::nothing) {
            asked_and_given(reset_offset, 99, 0);
            asked_and_given(probe_offset, 100, 0);
        }
    }
    EXPECT_EQ(news, FetchNews::changed);
    EXPECT_EQ(rounds, 6);
}

TEST_F(FileFetchTest, FailuresAreTold) {
    EXPECT_EQ(step(), FetchStep::ask);
    EXPECT_EQ(give(0, 0, 0).news, FetchNews::missing);
    fetch_ = begin_fetch("/media/a.mp4", 5.0, now());
    asked_and_given(reset_offset, 0, 0);
    EXPECT_EQ(asked_and_given(probe_offset, 0x7FFFFFFF, 0).news, FetchNews::too_large);
    fetch_ = begin_fetch("/media/a.mp4", 5.0, now());
    learn_size(100, 0);
    EXPECT_EQ(asked_and_given(0, 100, 0).news, FetchNews::cut_short);
}
