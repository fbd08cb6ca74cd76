// The memory of a block: what is allocated and freed, and what happens when there is none.
#include "ikcp_block.h"

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <vector>

using namespace ikcp_block;

TEST(IkcpAckPush, KeepsPairsInOrderUpToTheLimit) {
    const CountedMemory counted;
    const Block block;
    for (uint32_t i = 0; i < ikcp_max_acks + 10; ++i) {
        ikcp_ack_push(block.kcp, i * 3, ~i);
        EXPECT_LE(block.kcp->ackcount, block.kcp->ackblock);
    }
    ASSERT_EQ(ikcp_max_acks, block.kcp->ackcount);
    for (uint32_t i = 0; i < ikcp_max_acks; ++i) {
        ASSERT_EQ(i * 3, block.kcp->acklist[i].sn);
        ASSERT_EQ(~i, block.kcp->acklist[i].ts);
    }
    EXPECT_EQ(3U, memory.live.size());
}

TEST(IkcpMemory, ReleaseFreesEveryQueue) {
    const CountedMemory counted;
    {
        Block one;
        Block other;
        one.kcp->nocwnd = 1;
        one.kcp->snd_wnd = 6;
        other.kcp->rcv_wnd = 3;
        for (int i = 0; i < 9; ++i) {
            EXPECT_EQ(0, one.send("text"));
        }
        one.flush_at(0);
        one.pass_to(other);
        EXPECT_EQ(3U, one.kcp->nsnd_que);
        EXPECT_EQ(6U, one.kcp->nsnd_buf);
        EXPECT_EQ(3U, other.kcp->nrcv_que);
        EXPECT_EQ(3U, other.kcp->nrcv_buf);
        EXPECT_EQ(6U, other.kcp->ackcount);
        // Two blocks with a buffer each, 9 + 6 segments, and the acks.
        EXPECT_EQ(20U, memory.live.size());
    }
    EXPECT_TRUE(memory.live.empty());
}

TEST(IkcpMemory, DeliveredAndAcknowledgedSegmentsAreFreed) {
    const CountedMemory counted;
    Block one;
    Block other;
    one.kcp->nocwnd = 1;
    for (int i = 0; i < 9; ++i) {
        EXPECT_EQ(0, one.send("text"));
    }
    one.flush_at(0);
    one.pass_to(other);
    for (int i = 0; i < 9; ++i) {
        EXPECT_EQ("4:text", received(other));
    }
    other.flush_at(0);
    other.pass_to(one);
    EXPECT_EQ(5U, memory.live.size()); // the blocks, their buffers, and one list of acks
}

TEST(IkcpMemory, EachHookHasItsDefault) {
    memory = Memory{};
    ikcp_allocator(take, nullptr);
    ikcp_release(ikcp_create(1, nullptr)); // freed by free
    EXPECT_EQ(2U, memory.calls);
    ikcp_allocator(nullptr, nullptr);
    ikcp_release(ikcp_create(1, nullptr));
    EXPECT_EQ(2U, memory.calls);
    memory = Memory{};
}

TEST(IkcpMemory, CreateFailsWithoutMemory) {
    const CountedMemory counted;
    for (const size_t refused : {1U, 2U}) {
        memory.calls = 0;
        memory.refuse_from = refused;
        EXPECT_EQ(nullptr, ikcp_create(1, nullptr));
        EXPECT_TRUE(memory.live.empty());
    }
}

TEST(IkcpMemory, ARefusedSendChangesNothing) {
    for (const int stream : {0, 1}) {
        const CountedMemory counted;
        const Block block;
        ASSERT_EQ(0, ikcp_setmtu(block.kcp, 124));
        EXPECT_EQ(0, block.send("first"));
        block.kcp->stream = stream;
        const size_t before = memory.live.size();
        const std::string text = text_of(350, 1);
        for (size_t refused = 1; refused <= 4; ++refused) {
            memory.calls = 0;
            memory.refuse_from = refused;
            EXPECT_EQ(-2, block.send(text)) << refused;
            EXPECT_EQ(before, memory.live.size());
            EXPECT_EQ((Numbers{5}), lengths(block.kcp->snd_queue));
            EXPECT_EQ(1U, block.kcp->nsnd_que);
        }
        memory.refuse_from = 0;
        EXPECT_EQ(0, block.send(text));
        EXPECT_EQ(stream != 0 ? (Numbers{100, 100, 100, 55}) : (Numbers{5, 100, 100, 100, 50}),
                  lengths(block.kcp->snd_queue));
    }
}

TEST(IkcpMemory, AReceivedSegmentThatCannotBeKeptIsNotAcknowledged) {
    const CountedMemory counted;
    Block one;
    Block other;
    one.kcp->nocwnd = 1;
    EXPECT_EQ(0, one.send("text"));
    one.flush_at(0);
    const std::string datagram = one.sent.at(0);
    const auto input = [&] {
        memory.calls = 0;
        return ikcp_input(other.kcp, datagram.data(), static_cast<long>(datagram.size()));
    };
    memory.refuse_from = 1; // the segment
    EXPECT_EQ(0, input());
    EXPECT_EQ(0U, other.kcp->ackcount);
    EXPECT_EQ(0U, other.kcp->rcv_nxt);
    memory.refuse_from = 2; // the acks
    EXPECT_EQ(0, input());
    EXPECT_EQ(0U, other.kcp->ackcount);
    EXPECT_EQ(1U, other.kcp->rcv_nxt);
    memory.refuse_from = 0;
    EXPECT_EQ(0, input()); // the retransmission is acknowledged
    EXPECT_EQ(1U, other.kcp->ackcount);
    EXPECT_EQ(1U, other.kcp->nrcv_que);
}

// A whole transfer in both directions in which allocations n to n + count - 1 fail: nothing is lost
// and nothing leaks. Returns false when there are fewer than n allocations.
static bool transfer_without_memory(size_t n, size_t count, int stream) {
    const CountedMemory counted;
    memory.refuse_from = n;
    memory.refuse_count = count;
    Block *ends[2] = {};
    std::string sent[2];
    std::string got[2];
    std::set<std::string> seen;
    for (Block *&end : ends) {
        // Block cannot represent a failed create, so try that first.
        ikcpcb *kcp = ikcp_create(1, nullptr);
        for (int tries = 0; kcp == nullptr && tries < 50; ++tries) {
            kcp = ikcp_create(1, nullptr);
        }
        ikcp_release(kcp);
        const size_t resume = memory.refuse_from;
        memory.refuse_from = 0;
        end = new Block(1);
        memory.refuse_from = resume;
        ikcp_nodelay(end->kcp, 1, 10, 2, 1);
        end->kcp->stream = stream;
        for (int tries = 0; tries < 50 && ikcp_setmtu(end->kcp, 60) != 0; ++tries) {
        }
    }
    for (uint32_t time = 0; time < 20000; time += 10) {
        for (int i = 0; i < 2; ++i) {
            const std::string text = text_of(70, static_cast<unsigned int>(i) + 1);
            if (sent[i].size() < 2100 && ends[i]->send(text) == 0) {
                sent[i] += text;
            }
            ikcp_update(ends[i]->kcp, time);
            ends[i]->pass_to(*ends[1 - i]);
        }
        for (int i = 0; i < 2; ++i) {
            std::vector<char> room(100);
            int size = 0;
            while ((size = ikcp_recv(ends[i]->kcp, room.data(), 100)) >= 0) {
                got[i].append(room.data(), static_cast<size_t>(size));
            }
        }
        if (got[0].size() == 2100 && got[1].size() == 2100) {
            break;
        }
    }
    EXPECT_EQ(2100U, got[0].size()) << n;
    EXPECT_TRUE(got[0] == sent[1] && got[1] == sent[0]) << n;
    const bool reached = memory.calls >= n;
    delete ends[0];
    delete ends[1];
    return reached;
}

TEST(IkcpMemory, ATransferSurvivesEachFailedCall) {
    for (const int stream : {0, 1}) {
        size_t n = 1;
        while (transfer_without_memory(n, 1, stream)) {
            ++n;
        }
        EXPECT_GT(n, 200U);
        for (size_t from = 1; from < n; from += 7) {
            transfer_without_memory(from, 20, stream);
        }
    }
}
