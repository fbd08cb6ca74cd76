// The block by itself: initial values, settings, queues, time, and the fatal checks.
#include "ikcp_block.h"

#include <climits>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace ikcp_block;

static std::vector<uint32_t> fragments(const IkcpList &list) {
    std::vector<uint32_t> result;
    for (const IkcpSegment *segment = list.first; segment != nullptr; segment = segment->next) {
        result.push_back(segment->frg);
    }
    return result;
}

TEST(IkcpBlock, BeginsWithTheseValues) {
    int user = 0;
    ikcpcb *kcp = ikcp_create(0xFEDCBA98U, &user);
    ASSERT_NE(nullptr, kcp);
    EXPECT_EQ(0xFEDCBA98U, kcp->conv);
    EXPECT_EQ(1400U, kcp->mtu);
    EXPECT_EQ(1376U, kcp->mss);
    EXPECT_EQ(0U, kcp->state);
    EXPECT_EQ(0U, kcp->snd_una);
    EXPECT_EQ(0U, kcp->snd_nxt);
    EXPECT_EQ(0U, kcp->rcv_nxt);
    EXPECT_EQ(0U, kcp->ts_recent);
    EXPECT_EQ(0U, kcp->ts_lastack);
    EXPECT_EQ(2U, kcp->ssthresh);
    EXPECT_EQ(0, kcp->rx_rttval);
    EXPECT_EQ(0, kcp->rx_srtt);
    EXPECT_EQ(200, kcp->rx_rto);
    EXPECT_EQ(100, kcp->rx_minrto);
    EXPECT_EQ(32U, kcp->snd_wnd);
    EXPECT_EQ(128U, kcp->rcv_wnd);
    EXPECT_EQ(128U, kcp->rmt_wnd);
    EXPECT_EQ(0U, kcp->cwnd);
    EXPECT_EQ(0U, kcp->probe);
    EXPECT_EQ(0U, kcp->current);
    EXPECT_EQ(100U, kcp->interval);
    EXPECT_EQ(100U, kcp->ts_flush);
    EXPECT_EQ(0U, kcp->xmit);
    EXPECT_EQ(0U, kcp->nrcv_buf);
    EXPECT_EQ(0U, kcp->nsnd_buf);
    EXPECT_EQ(0U, kcp->nrcv_que);
    EXPECT_EQ(0U, kcp->nsnd_que);
    EXPECT_EQ(0U, kcp->nodelay);
    EXPECT_EQ(0U, kcp->updated);
    EXPECT_EQ(0U, kcp->ts_probe);
    EXPECT_EQ(0U, kcp->probe_wait);
    EXPECT_EQ(20U, kcp->dead_link);
    EXPECT_EQ(0U, kcp->incr);
    for (const IkcpList *list : {&kcp->snd_queue, &kcp->rcv_queue, &kcp->snd_buf, &kcp->rcv_buf}) {
        EXPECT_EQ(nullptr, list->first);
        EXPECT_EQ(nullptr, list->last);
    }
    EXPECT_EQ(nullptr, kcp->acklist);
    EXPECT_EQ(0U, kcp->ackcount);
    EXPECT_EQ(0U, kcp->ackblock);
    EXPECT_EQ(&user, kcp->user);
    EXPECT_NE(nullptr, kcp->buffer);
    EXPECT_EQ(0, kcp->fastresend);
    EXPECT_EQ(5, kcp->fastlimit);
    EXPECT_EQ(0, kcp->nocwnd);
    EXPECT_EQ(0, kcp->stream);
    EXPECT_EQ(0, kcp->logmask);
    EXPECT_EQ(nullptr, kcp->output);
    EXPECT_EQ(nullptr, kcp->writelog);
    ikcp_release(kcp);
    ikcp_release(nullptr);
}

TEST(IkcpBlock, HasABufferOfThreeDatagramsAndHeaders) {
    const CountedMemory counted;
    ikcpcb *kcp = ikcp_create(1, nullptr);
    EXPECT_EQ(2U, memory.live.size());
    EXPECT_EQ((1400U + 24U) * 3U, memory.taken);
    EXPECT_EQ(0, ikcp_setmtu(kcp, 576));
    EXPECT_EQ((576U + 24U) * 3U, memory.taken);
    EXPECT_EQ(2U, memory.live.size());
    ikcp_release(kcp);
}

TEST(IkcpSetmtu, SetsBothSizes) {
    const Block block;
    EXPECT_EQ(0, ikcp_setmtu(block.kcp, 50));
    EXPECT_EQ(50U, block.kcp->mtu);
    EXPECT_EQ(26U, block.kcp->mss);
    EXPECT_EQ(0, ikcp_setmtu(block.kcp, 9000));
    EXPECT_EQ(9000U, block.kcp->mtu);
    EXPECT_EQ(8976U, block.kcp->mss);
    EXPECT_EQ(0, ikcp_setmtu(block.kcp, static_cast<int>(ikcp_max_len) + 24));
    EXPECT_EQ(ikcp_max_len, block.kcp->mss);
}

TEST(IkcpSetmtu, RefusesWithoutAnyChange) {
    const CountedMemory counted;
    ikcpcb *kcp = ikcp_create(1, nullptr);
    char *const buffer = kcp->buffer;
    for (const int mtu : {49, 24, 23, 0, -1, INT_MIN}) {
        EXPECT_EQ(-1, ikcp_setmtu(kcp, mtu)) << mtu;
    }
    for (const int mtu : {static_cast<int>(ikcp_max_len) + 25, INT_MAX}) {
        EXPECT_EQ(-2, ikcp_setmtu(kcp, mtu)) << mtu;
    }
    memory.refuse_from = memory.calls + 1;
    EXPECT_EQ(-2, ikcp_setmtu(kcp, 500));
    EXPECT_EQ(1400U, kcp->mtu);
    EXPECT_EQ(1376U, kcp->mss);
    EXPECT_EQ(buffer, kcp->buffer);
    ikcp_release(kcp);
}

TEST(IkcpSetmtu, SegmentsOfALargerMtuStillTravel) {
    Block one;
    Block other;
    one.kcp->nocwnd = 1;
    const std::string text = text_of(3 * 1376 + 5, 1);
    EXPECT_EQ(0, one.send(text));
    EXPECT_EQ(0, ikcp_setmtu(one.kcp, 50));
    one.flush_at(0);
    ASSERT_EQ(4U, one.sent.size());
    EXPECT_EQ(1400U, one.sent[0].size());
    EXPECT_EQ(29U, one.sent[3].size());
    EXPECT_EQ(0, ikcp_setmtu(one.kcp, 51)); // now they are in the send buffer
    one.sent.clear();
    one.flush_at(1000);
    ASSERT_EQ(4U, one.sent.size());
    one.pass_to(other);
    EXPECT_EQ(with_size(text), received(other));
}

TEST(IkcpNodelay, SetsItsFields) {
    const Block block;
    ikcpcb *kcp = block.kcp;
    EXPECT_EQ(0, ikcp_nodelay(kcp, 1, 20, 2, 1));
    EXPECT_EQ(1U, kcp->nodelay);
    EXPECT_EQ(30, kcp->rx_minrto);
    EXPECT_EQ(20U, kcp->interval);
    EXPECT_EQ(2, kcp->fastresend);
    EXPECT_EQ(1, kcp->nocwnd);
    EXPECT_EQ(0, ikcp_nodelay(kcp, -1, -1, -1, -1));
    EXPECT_EQ(1U, kcp->nodelay);
    EXPECT_EQ(30, kcp->rx_minrto);
    EXPECT_EQ(20U, kcp->interval);
    EXPECT_EQ(2, kcp->fastresend);
    EXPECT_EQ(1, kcp->nocwnd);
    EXPECT_EQ(0, ikcp_nodelay(kcp, 0, 30, 0, 0));
    EXPECT_EQ(0U, kcp->nodelay);
    EXPECT_EQ(100, kcp->rx_minrto);
    EXPECT_EQ(30U, kcp->interval);
    EXPECT_EQ(0, kcp->fastresend);
    EXPECT_EQ(0, kcp->nocwnd);
    EXPECT_EQ(0, ikcp_nodelay(kcp, 2, -5, -5, INT_MIN));
    EXPECT_EQ(2U, kcp->nodelay);
    EXPECT_EQ(30, kcp->rx_minrto);
    EXPECT_EQ(30U, kcp->interval);
    EXPECT_EQ(200, kcp->rx_rto);
    EXPECT_EQ(100U, kcp->ts_flush);
}

TEST(IkcpNodelay, ClampsTheInterval) {
    const Block block;
    const int cases[][2] = {{0, 10},      {9, 10},      {10, 10},     {11, 11},
                            {4999, 4999}, {5000, 5000}, {5001, 5000}, {INT_MAX, 5000}};
    for (const auto &[given, kept] : cases) {
        ikcp_nodelay(block.kcp, -1, given, -1, -1);
        EXPECT_EQ(static_cast<uint32_t>(kept), block.kcp->interval) << given;
    }
}

TEST(IkcpSend, CutsAMessageIntoCountedFragments) {
    const Block block;
    ASSERT_EQ(0, ikcp_setmtu(block.kcp, 124)); // mss 100
    EXPECT_EQ(0, block.send(text_of(1, 1)));
    EXPECT_EQ(0, block.send(text_of(100, 1)));
    EXPECT_EQ(0, block.send(text_of(101, 1)));
    EXPECT_EQ(0, block.send(text_of(300, 1)));
    EXPECT_EQ((Numbers{1, 100, 100, 1, 100, 100, 100}), lengths(block.kcp->snd_queue));
    EXPECT_EQ((Numbers{0, 0, 1, 0, 2, 1, 0}), fragments(block.kcp->snd_queue));
    EXPECT_EQ(7U, block.kcp->nsnd_que);
}

TEST(IkcpSend, FillsTheLastSegmentInStreamMode) {
    const Block block;
    block.kcp->stream = 1;
    ASSERT_EQ(0, ikcp_setmtu(block.kcp, 124));
    const std::string text = text_of(1000, 5);
    size_t at = 0;
    const auto send = [&](size_t size) {
        EXPECT_EQ(0, block.send(text.substr(at, size)));
        at += size;
    };
    send(30);
    send(40);
    EXPECT_EQ((Numbers{70}), lengths(block.kcp->snd_queue));
    send(30);
    EXPECT_EQ((Numbers{100}), lengths(block.kcp->snd_queue));
    send(1);
    EXPECT_EQ((Numbers{100, 1}), lengths(block.kcp->snd_queue));
    send(100);
    EXPECT_EQ((Numbers{100, 100, 1}), lengths(block.kcp->snd_queue));
    send(299);
    EXPECT_EQ((Numbers{100, 100, 100, 100, 100}), lengths(block.kcp->snd_queue));
    EXPECT_EQ((Numbers{0, 0, 0, 0, 0}), fragments(block.kcp->snd_queue));
    EXPECT_EQ(5U, block.kcp->nsnd_que);
    std::string queued;
    for (const IkcpSegment *segment = block.kcp->snd_queue.first; segment != nullptr;
         segment = segment->next) {
        queued.append(segment->data, segment->len);
    }
    EXPECT_EQ(text.substr(0, at), queued);
}

TEST(IkcpSend, TwoSmallStreamSendsAreOneSegmentUntilTheFirstMoves) {
    Block one;
    Block other;
    one.kcp->stream = 1;
    one.kcp->nocwnd = 1;
    EXPECT_EQ(0, one.send("ab"));
    EXPECT_EQ(0, one.send("cd"));
    EXPECT_EQ(1U, one.kcp->nsnd_que);
    one.flush_at(0);
    EXPECT_EQ(0, one.send("ef"));
    EXPECT_EQ(1U, one.kcp->nsnd_que);
    one.flush_at(1);
    one.pass_to(other);
    EXPECT_EQ("4:abcd", received(other));
    EXPECT_EQ("2:ef", received(other));
}

TEST(IkcpSend, StreamModeFillsSegmentsCutBeforeItOrForASmallerMtu) {
    const Block block;
    ASSERT_EQ(0, ikcp_setmtu(block.kcp, 124));
    EXPECT_EQ(0, block.send("message"));
    block.kcp->stream = 1;
    EXPECT_EQ(0, block.send(text_of(60, 1)));
    EXPECT_EQ((Numbers{67}), lengths(block.kcp->snd_queue));
    ASSERT_EQ(0, ikcp_setmtu(block.kcp, 224));
    EXPECT_EQ(0, block.send(text_of(134, 1)));
    EXPECT_EQ((Numbers{200, 1}), lengths(block.kcp->snd_queue));
    EXPECT_EQ(0, std::memcmp(block.kcp->snd_queue.first->data, "message", 7));
    EXPECT_EQ(text_of(60, 1), std::string(block.kcp->snd_queue.first->data + 7, 60));
    // A last segment that is longer than the current mss is not changed.
    EXPECT_EQ(0, block.send(text_of(199, 1)));
    ASSERT_EQ(0, ikcp_setmtu(block.kcp, 50));
    EXPECT_EQ(0, block.send("x"));
    EXPECT_EQ((Numbers{200, 200, 1}), lengths(block.kcp->snd_queue));
}

TEST(IkcpSend, AnEmptyMessageIsDeliveredAnEmptyStreamPieceIsNothing) {
    Block one;
    Block other;
    one.kcp->nocwnd = 1;
    EXPECT_EQ(0, ikcp_send(one.kcp, nullptr, 0));
    EXPECT_EQ(0, one.send("x"));
    EXPECT_EQ(2U, one.kcp->nsnd_que);
    one.flush_at(0);
    one.pass_to(other);
    EXPECT_EQ(0, ikcp_peeksize(other.kcp));
    EXPECT_EQ("0:", received(other, 0));
    EXPECT_EQ("1:x", received(other));
    one.kcp->stream = 1;
    EXPECT_EQ(0, ikcp_send(one.kcp, "x", 0));
    EXPECT_EQ(0U, one.kcp->nsnd_que);
}

TEST(IkcpSend, RefusesBadArguments) {
    const Block block;
    EXPECT_EQ(-1, ikcp_send(block.kcp, "x", -1));
    EXPECT_EQ(-1, ikcp_send(block.kcp, "x", INT_MIN));
    EXPECT_EQ(-1, ikcp_send(block.kcp, nullptr, 1));
    EXPECT_EQ(0U, block.kcp->nsnd_que);
}

TEST(IkcpSend, RefusesMoreFragmentsThanTheReceiveWindow) {
    for (const int stream : {0, 1}) {
        const Block block;
        block.kcp->stream = stream;
        block.kcp->rcv_wnd = 4;
        ASSERT_EQ(0, ikcp_setmtu(block.kcp, 124));
        EXPECT_EQ(-2, block.send(text_of(401, 1)));
        EXPECT_EQ(0U, block.kcp->nsnd_que);
        EXPECT_EQ(0, block.send(text_of(400, 1)));
        EXPECT_EQ(4U, block.kcp->nsnd_que);
    }
}

TEST(IkcpSend, ARefusedStreamSendQueuesNothing) {
    const Block block;
    block.kcp->stream = 1;
    block.kcp->rcv_wnd = 4;
    ASSERT_EQ(0, ikcp_setmtu(block.kcp, 124));
    EXPECT_EQ(0, block.send(text_of(50, 1)));
    EXPECT_EQ(-2, block.send(text_of(451, 1)));
    EXPECT_EQ((Numbers{50}), lengths(block.kcp->snd_queue));
    EXPECT_EQ(0, block.send(text_of(450, 1)));
    EXPECT_EQ((Numbers{100, 100, 100, 100, 100}), lengths(block.kcp->snd_queue));
}

TEST(IkcpSend, AMessageHasAtMost256Fragments) {
    const Block block;
    block.kcp->rcv_wnd = 1000;
    ASSERT_EQ(0, ikcp_setmtu(block.kcp, 50));
    EXPECT_EQ(-2, block.send(text_of(256 * 26 + 1, 1)));
    EXPECT_EQ(0, block.send(text_of(256 * 26, 1)));
    EXPECT_EQ(255U, block.kcp->snd_queue.first->frg);
    block.kcp->stream = 1;
    EXPECT_EQ(0, block.send(text_of(1000 * 26, 1)));
    EXPECT_EQ(1256U, block.kcp->nsnd_que);
}

TEST(IkcpRecv, DeliversMessagesAsTheyWereSent) {
    Block one;
    Block other;
    one.kcp->nocwnd = 1;
    ASSERT_EQ(0, ikcp_setmtu(one.kcp, 124));
    std::vector<std::string> texts;
    for (const size_t size : {1U, 99U, 100U, 101U, 250U, 700U}) {
        texts.push_back(text_of(size, static_cast<unsigned int>(size)));
        EXPECT_EQ(0, one.send(texts.back()));
    }
    EXPECT_EQ(-1, ikcp_peeksize(other.kcp));
    EXPECT_EQ("-1", received(other));
    one.flush_at(0);
    one.pass_to(other);
    for (const std::string &text : texts) {
        EXPECT_EQ(static_cast<int>(text.size()), ikcp_peeksize(other.kcp));
        EXPECT_EQ(with_size(text), received(other));
    }
    EXPECT_EQ("-1", received(other));
    EXPECT_EQ(0U, other.kcp->nrcv_que);
}

TEST(IkcpRecv, PeeksWithANegativeLength) {
    Block one;
    Block other;
    one.kcp->nocwnd = 1;
    ASSERT_EQ(0, ikcp_setmtu(one.kcp, 50));
    const std::string text = text_of(60, 3);
    EXPECT_EQ(0, one.send(text));
    one.flush_at(0);
    one.pass_to(other);
    other.kcp->rcv_wnd = 3; // full: a delivery would schedule a tell
    EXPECT_EQ(with_size(text), received(other, -60));
    EXPECT_EQ("-3", received(other, -59));
    EXPECT_EQ(60, ikcp_recv(other.kcp, nullptr, -60));
    EXPECT_EQ(60, ikcp_recv(other.kcp, nullptr, INT_MIN));
    EXPECT_EQ(0U, other.kcp->probe);
    EXPECT_EQ(3U, other.kcp->nrcv_que);
    EXPECT_EQ(60, ikcp_recv(other.kcp, nullptr, 60));
    EXPECT_EQ(ikcp_probe_tell, other.kcp->probe);
    EXPECT_EQ("-1", received(other, -60));
    EXPECT_EQ("-1", received(other, 60));
}

TEST(IkcpRecv, KeepsAMessageThatDoesNotFit) {
    Block one;
    Block other;
    one.kcp->nocwnd = 1;
    ASSERT_EQ(0, ikcp_setmtu(one.kcp, 50));
    const std::string text = text_of(60, 3);
    EXPECT_EQ(0, one.send(text));
    one.flush_at(0);
    one.pass_to(other);
    EXPECT_EQ("-3", received(other, 59));
    EXPECT_EQ("-3", received(other, 0));
    EXPECT_EQ(with_size(text), received(other, 60));
}

TEST(IkcpRecv, WaitsForTheWholeMessage) {
    Block one;
    Block other;
    one.kcp->nocwnd = 1;
    ASSERT_EQ(0, ikcp_setmtu(one.kcp, 50));
    const std::string text = text_of(60, 3);
    EXPECT_EQ(0, one.send(text));
    one.flush_at(0);
    ASSERT_EQ(3U, one.sent.size());
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(i == 0 ? "-1" : "-2", received(other));
        EXPECT_EQ(-1, ikcp_peeksize(other.kcp));
        EXPECT_EQ(0,
                  ikcp_input(other.kcp, one.sent[i].data(), static_cast<long>(one.sent[i].size())));
    }
    EXPECT_EQ(60, ikcp_peeksize(other.kcp));
    EXPECT_EQ(with_size(text), received(other));
}

TEST(IkcpRecv, RefillsTheQueueAndTellsWhenItWasFull) {
    Block one;
    Block other;
    one.kcp->nocwnd = 1;
    other.kcp->rcv_wnd = 3;
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(0, one.send(std::to_string(i)));
    }
    one.kcp->rmt_wnd = 10;
    one.flush_at(0);
    ASSERT_EQ(1U, one.sent.size());
    one.pass_to(other);
    EXPECT_EQ(3U, other.kcp->nrcv_que);
    EXPECT_EQ(3U, other.kcp->rcv_nxt);
    EXPECT_EQ(2U, other.kcp->nrcv_buf);
    EXPECT_EQ("1:0", received(other));
    EXPECT_EQ(3U, other.kcp->nrcv_que);
    EXPECT_EQ(4U, other.kcp->rcv_nxt);
    EXPECT_EQ(1U, other.kcp->nrcv_buf);
    EXPECT_EQ(ikcp_probe_tell, other.kcp->probe);
    EXPECT_EQ("1:1", received(other));
    EXPECT_EQ(0U, other.kcp->nrcv_buf);
    EXPECT_EQ("1:2", received(other));
    EXPECT_EQ(2U, other.kcp->nrcv_que);
    other.kcp->probe = 0;
    EXPECT_EQ("1:3", received(other));
    EXPECT_EQ(0U, other.kcp->probe);
    EXPECT_EQ("1:4", received(other));
    EXPECT_EQ(5U, other.kcp->rcv_nxt);
}

TEST(IkcpUpdate, FlushesEveryInterval) {
    for (const uint32_t start : {0U, 5000U, 0xFFFFFFF0U}) {
        Block block;
        ikcp_nodelay(block.kcp, -1, 30, -1, -1);
        const auto flushed = [&](uint32_t time) {
            ikcp_ack_push(block.kcp, 1, 1); // sent with any flush
            ikcp_update(block.kcp, time);
            EXPECT_EQ(time, block.kcp->current);
            const bool any = !block.sent.empty();
            block.sent.clear();
            return any;
        };
        EXPECT_TRUE(flushed(start));
        EXPECT_EQ(1U, block.kcp->updated);
        EXPECT_EQ(start + 30, block.kcp->ts_flush);
        EXPECT_FALSE(flushed(start));
        EXPECT_FALSE(flushed(start + 29));
        EXPECT_TRUE(flushed(start + 30));
        EXPECT_EQ(start + 60, block.kcp->ts_flush);
        EXPECT_TRUE(flushed(start + 65)); // a little late: the rhythm is kept
        EXPECT_EQ(start + 90, block.kcp->ts_flush);
        EXPECT_TRUE(flushed(start + 119));
        EXPECT_EQ(start + 120, block.kcp->ts_flush);
        EXPECT_TRUE(flushed(start + 150)); // exactly one interval late: behind
        EXPECT_EQ(start + 180, block.kcp->ts_flush);
        EXPECT_TRUE(flushed(start + 211));
        EXPECT_EQ(start + 241, block.kcp->ts_flush);
    }
}

TEST(IkcpUpdate, StartsAnewAfterAJumpOfMoreThanTenSeconds) {
    for (const uint32_t flush : {100000U, 5U, 0xFFFFFFF0U}) {
        const struct {
            uint32_t offset;
            uint32_t next; // ts_flush afterwards, from `flush`
        } cases[] = {
            {10000, 10100}, // late, but no jump: the same result
            {10001, 10101},   {0x7FFFFFFF, 0x7FFFFFFF + 100U}, {0x80000000U, 0x80000000U + 100U},
            {0U - 10000U, 0}, {0U - 10001U, 0U - 9901U},       {0U - 1U, 0}};
        for (const auto &[offset, next] : cases) {
            Block block;
            ikcp_update(block.kcp, flush - 100);
            ASSERT_EQ(flush, block.kcp->ts_flush);
            ikcp_ack_push(block.kcp, 1, 1);
            ikcp_update(block.kcp, flush + offset);
            EXPECT_EQ(flush + next, block.kcp->ts_flush) << flush << " " << offset;
            EXPECT_EQ(next == 0 ? 0U : 1U, block.sent.size()) << flush << " " << offset;
        }
    }
}

TEST(IkcpFlush, DoesNothingBeforeTheFirstUpdate) {
    Block block;
    ikcp_ack_push(block.kcp, 1, 1);
    EXPECT_EQ(0, block.send("x"));
    block.kcp->nocwnd = 1;
    ikcp_flush(block.kcp);
    EXPECT_TRUE(block.sent.empty());
    EXPECT_EQ(1U, block.kcp->ackcount);
    EXPECT_EQ(1U, block.kcp->nsnd_que);
    EXPECT_EQ(0U, block.kcp->cwnd);
}

TEST(IkcpCheck, GivesTheTimeOfTheNextFlush) {
    const Block block;
    EXPECT_EQ(12345U, ikcp_check(block.kcp, 12345));
    for (const uint32_t start : {1000U, 0xFFFFFFC0U}) {
        ikcp_update(block.kcp, start + 50000);
        block.kcp->updated = 0;
        ikcp_update(block.kcp, start);
        ASSERT_EQ(start + 100, block.kcp->ts_flush);
        EXPECT_EQ(start + 100, ikcp_check(block.kcp, start));
        EXPECT_EQ(start + 100, ikcp_check(block.kcp, start + 60));
        EXPECT_EQ(start + 100, ikcp_check(block.kcp, start + 100));
        EXPECT_EQ(start + 130, ikcp_check(block.kcp, start + 130)); // late: now
        EXPECT_EQ(start + 10100, ikcp_check(block.kcp, start + 10100));
        EXPECT_EQ(start + 10101, ikcp_check(block.kcp, start + 10101));
        // Far ahead: no later than an interval from now, or now when the clock must have jumped.
        EXPECT_EQ(start - 9900 + 100, ikcp_check(block.kcp, start - 9900));
        EXPECT_EQ(start - 9901, ikcp_check(block.kcp, start - 9901));
    }
}

TEST(IkcpCheck, GivesTheEarliestRepetition) {
    for (const uint32_t start : {1000U, 0xFFFFFF80U}) {
        Block block;
        ikcp_nodelay(block.kcp, 1, 500, 0, 1);
        EXPECT_EQ(0, block.send("a"));
        ikcp_update(block.kcp, start); // retransmits at start + 200
        EXPECT_EQ(start + 500, block.kcp->ts_flush);
        EXPECT_EQ(start + 200, ikcp_check(block.kcp, start));
        EXPECT_EQ(start + 200, ikcp_check(block.kcp, start + 200));
        EXPECT_EQ(start + 201, ikcp_check(block.kcp, start + 201)); // late: now
        EXPECT_EQ(0, block.send("b"));
        block.flush_at(start + 10);
        ASSERT_EQ(2U, block.kcp->nsnd_buf);
        EXPECT_EQ(start + 200, ikcp_check(block.kcp, start + 20));
        block.kcp->snd_buf.first->resendts = start + 300;
        EXPECT_EQ(start + 210, ikcp_check(block.kcp, start + 20)); // the second is earlier
        block.kcp->snd_buf.last->resendts = start + 900;
        block.kcp->snd_buf.first->resendts = start + 900;
        EXPECT_EQ(start + 500, ikcp_check(block.kcp, start + 20));
    }
}

TEST(IkcpOutput, PassesTheDatagramAndTheResult) {
    int user = 0;
    ikcpcb *kcp = ikcp_create(1, &user);
    kcp->output = [](const char *buf, int len, ikcpcb *block, void *owner) {
        EXPECT_EQ(owner, block->user);
        EXPECT_EQ("abc", std::string(buf, static_cast<size_t>(len)));
        ++*static_cast<int *>(owner);
        return -17;
    };
    EXPECT_EQ(-17, ikcp_output(kcp, "abc", 3));
    EXPECT_EQ(1, user);
    EXPECT_EQ(0, ikcp_output(kcp, "abc", 0));
    EXPECT_EQ(0, ikcp_output(kcp, "abc", -1));
    EXPECT_EQ(1, user);
    ikcp_release(kcp);
}

TEST(IkcpDeath, ADatagramWithoutAHookEndsTheProcess) {
    ikcpcb *kcp = ikcp_create(1, nullptr);
    EXPECT_DEATH(ikcp_output(kcp, "x", 1),
                 "^ikcp: assertion failed: kcp->output: int ikcp_output\\(.*ikcpcb.*\n$");
    EXPECT_EQ(0, ikcp_send(kcp, "x", 1));
    ikcp_update(kcp, 0); // nothing is due yet
    EXPECT_DEATH(ikcp_update(kcp, 100), "kcp->output");
    EXPECT_EXIT(ikcp_update(kcp, 100), testing::KilledBySignal(SIGABRT), "");
    ikcp_release(kcp);
}

TEST(IkcpDeath, AnMssOfZeroEndsTheProcess) {
    const Block block;
    block.kcp->mss = 0;
    ikcp_flush(block.kcp); // does nothing yet
    EXPECT_DEATH(ikcp_update(block.kcp, 0),
                 "^ikcp: assertion failed: kcp->mss > 0: void ikcp_flush\\(.*ikcpcb.*\n$");
    EXPECT_DEATH(ikcp_send(block.kcp, "x", 1),
                 "^ikcp: assertion failed: kcp->mss > 0: int ikcp_send\\(.*ikcpcb.*\n$");
    EXPECT_EXIT(ikcp_update(block.kcp, 0), testing::KilledBySignal(SIGABRT), "");
}
