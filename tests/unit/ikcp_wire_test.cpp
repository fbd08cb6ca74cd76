// What a block sends and how it handles what it receives, segment by segment.
#include "ikcp_wire.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace ikcp_wire;

TEST(IkcpWire, PushBytes) {
    Block block;
    block.kcp->conv = 0x01020304;
    block.kcp->rcv_nxt = 0x11223344;
    block.kcp->rcv_wnd = 0x1234;
    block.start_sending_at(0xA0B0C0D0U);
    ASSERT_EQ(0, ikcp_setmtu(block.kcp, 50));
    EXPECT_EQ(0, ikcp_send(block.kcp, "abcdefghijklmnopqrstuvwxyz\xff\x80", 28));
    block.kcp->current = 0x55667788;
    ikcp_flush(block.kcp);
    const std::string first("\x04\x03\x02\x01\x51\x01\x34\x12\x88\x77\x66\x55\xd0\xc0\xb0\xa0"
                            "\x44\x33\x22\x11\x1a\x00\x00\x00"
                            "abcdefghijklmnopqrstuvwxyz",
                            50);
    const std::string second("\x04\x03\x02\x01\x51\x00\x34\x12\x88\x77\x66\x55\xd1\xc0\xb0\xa0"
                             "\x44\x33\x22\x11\x02\x00\x00\x00\xff\x80",
                             26);
    ASSERT_EQ(2U, block.sent.size());
    EXPECT_EQ(first, block.sent[0]);
    EXPECT_EQ(second, block.sent[1]);
}

TEST(IkcpWire, AckAskTellBytes) {
    Block block;
    block.kcp->conv = 0x01020304;
    block.kcp->rcv_nxt = 0x11223344;
    block.kcp->rcv_wnd = 0x1234;
    ikcp_ack_push(block.kcp, 0xA0B0C0D0U, 0x90807060U);
    block.kcp->probe = 3;
    block.kcp->current = 0x55667788;
    ikcp_flush(block.kcp);
    const std::string expected("\x04\x03\x02\x01\x52\x00\x34\x12\x60\x70\x80\x90\xd0\xc0\xb0\xa0"
                               "\x44\x33\x22\x11\x00\x00\x00\x00"
                               "\x04\x03\x02\x01\x53\x00\x34\x12\x00\x00\x00\x00\x00\x00\x00\x00"
                               "\x44\x33\x22\x11\x00\x00\x00\x00"
                               "\x04\x03\x02\x01\x54\x00\x34\x12\x00\x00\x00\x00\x00\x00\x00\x00"
                               "\x44\x33\x22\x11\x00\x00\x00\x00",
                               72);
    ASSERT_EQ(1U, block.sent.size());
    EXPECT_EQ(expected, block.sent[0]);
    EXPECT_EQ(0U, block.kcp->ackcount);
    EXPECT_EQ(0U, block.kcp->probe);
    block.sent.clear();
    EXPECT_TRUE(block.flush_at(0x55667789).empty());
}

TEST(IkcpWire, StreamPushesHaveNoFragmentCount) {
    Block block;
    block.kcp->stream = 1;
    block.send(3000);
    const std::vector<Wire> wires = block.flush_at(0);
    ASSERT_EQ(3U, wires.size());
    for (const Wire &wire : wires) {
        EXPECT_EQ(0U, wire.frg);
    }
}

TEST(IkcpWire, TellsTheFreeReceiveWindow) {
    Block block;
    const auto shown = [&] {
        block.kcp->probe = ikcp_probe_tell;
        return block.flush_at(0).at(0).wnd;
    };
    EXPECT_EQ(128U, shown());
    block.kcp->rcv_wnd = 65535;
    EXPECT_EQ(65535U, shown());
    block.kcp->rcv_wnd = 65536;
    EXPECT_EQ(65535U, shown());
    block.kcp->rcv_wnd = 3;
    for (uint32_t sn = 0; sn < 2; ++sn) {
        EXPECT_EQ(0, block.input(Wire{.sn = sn}));
        EXPECT_EQ(2U - sn, shown());
    }
    EXPECT_EQ(0, block.input(Wire{.sn = 3})); // ahead of a gap: not counted
    EXPECT_EQ(1U, shown());
    block.kcp->rcv_wnd = 2;
    EXPECT_EQ(0U, shown());
    block.kcp->rcv_wnd = 1;
    EXPECT_EQ(0U, shown());
}

TEST(IkcpWire, PacksSegmentsUpToTheMtu) {
    Block block;
    ASSERT_EQ(0, ikcp_setmtu(block.kcp, 96));
    for (uint32_t sn = 0; sn < 9; ++sn) {
        ikcp_ack_push(block.kcp, sn, 0);
    }
    block.kcp->probe = 3;
    block.send(23); // 24 * 3 + 24 + 23 is too long
    block.send(49); // 47 + 24 + 49 is too long
    block.send(0);  // 73 + 24 is too long by one
    block.send(48); // 24 + 72 fits exactly
    ikcp_flush(block.kcp);
    std::vector<size_t> sizes;
    for (const std::string &datagram : block.sent) {
        sizes.push_back(datagram.size());
    }
    // 4 acks, 4 acks, ack + ask + tell, 23, 49, 0 with 48.
    EXPECT_EQ((std::vector<size_t>{96, 96, 72, 47, 73, 96}), sizes);
}

TEST(IkcpInput, RefusesWhatIsNoSegment) {
    Block block;
    const std::string good = encode({.data = "abc"});
    EXPECT_EQ(-1, ikcp_input(block.kcp, nullptr, 100));
    EXPECT_EQ(-1, ikcp_input(block.kcp, good.data(), -1));
    EXPECT_EQ(-1, ikcp_input(block.kcp, good.data(), -100000));
    for (size_t size = 0; size < 24; ++size) {
        EXPECT_EQ(-1, block.input(good.substr(0, size))) << size;
    }
    for (size_t size = 24; size < 27; ++size) {
        EXPECT_EQ(-2, block.input(good.substr(0, size))) << size;
    }
    for (const uint32_t conv : {6U, 0x100U + 7U, 0x07000000U, 0U}) {
        EXPECT_EQ(-1, block.input(Wire{.conv = conv}));
    }
    for (uint32_t cmd = 0; cmd < 256; ++cmd) {
        if (cmd < 81 || cmd > 84) {
            EXPECT_EQ(-1, block.input(Wire{.cmd = cmd})) << cmd;
        }
    }
    for (const uint32_t len : {4U, 100U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFEU}) {
        EXPECT_EQ(-2, block.input(Wire{.wnd = 1, .data = "abc", .claimed = len})) << len;
        EXPECT_EQ(-2, block.input(Wire{.cmd = 84, .wnd = 1, .data = "abc", .claimed = len}));
    }
    EXPECT_EQ(128U, block.kcp->rmt_wnd);
    EXPECT_EQ(0U, block.kcp->rcv_nxt);
    EXPECT_EQ(0U, block.kcp->ackcount);
    EXPECT_EQ(0, block.input(good));
    EXPECT_EQ("abc", received(block));
}

TEST(IkcpInput, BoundsTheLengthOfASegment) {
    const Block block;
    EXPECT_EQ(-2, block.input(Wire{.data = std::string(ikcp_max_len + 1, 'x')}));
    EXPECT_EQ(0, block.input(Wire{.data = std::string(ikcp_max_len, 'x')}));
    EXPECT_EQ(static_cast<int>(ikcp_max_len), ikcp_peeksize(block.kcp));
}

TEST(IkcpInput, IgnoresAFewBytesBehindTheLastSegment) {
    const Block block;
    EXPECT_EQ(0, block.input(encode({.data = "abc"}) + std::string(23, '\0')));
    EXPECT_EQ("abc", received(block));
}

TEST(IkcpInput, TakesEverySegmentOfADatagram) {
    Block block;
    block.send_many(3);
    block.flush_at(0);
    std::string bytes;
    bytes += encode({.sn = 1, .data = "second"});
    bytes += encode({.cmd = 82, .sn = 1, .una = 0});
    bytes += encode({.cmd = 84, .data = "data that nobody reads"});
    bytes += encode({.cmd = 83, .una = 1});
    bytes += encode({.wnd = 77, .sn = 0, .una = 1, .data = "first"});
    EXPECT_EQ(0, block.input(bytes));
    EXPECT_EQ("first", received(block));
    EXPECT_EQ("second", received(block));
    EXPECT_EQ((Numbers{2}), numbers_of(block.kcp->snd_buf));
    EXPECT_EQ((Numbers{1, 0}), acked(block.kcp));
    EXPECT_EQ(ikcp_probe_tell, block.kcp->probe);
    EXPECT_EQ(77U, block.kcp->rmt_wnd);
}

TEST(IkcpInput, AnErrorKeepsWhatCameBeforeIt) {
    Block block;
    block.kcp->nocwnd = 0;
    block.kcp->cwnd = 10;
    block.kcp->ssthresh = 100;
    block.send_many(5);
    block.flush_at(0);
    const std::string good = encode({.sn = 0, .data = "good"});
    const std::string ack = encode({.cmd = 82, .sn = 3, .una = 1});
    EXPECT_EQ(-1, block.input(good + ack + encode({.conv = 8, .sn = 1})));
    EXPECT_EQ(-1, block.input(good + ack + encode({.cmd = 85, .sn = 1})));
    EXPECT_EQ(-2, block.input(good + ack + encode({.sn = 1, .data = "x", .claimed = 2})));
    EXPECT_EQ("good", received(block));
    EXPECT_EQ("-1", received(block));
    EXPECT_EQ((Numbers{1, 2, 4}), numbers_of(block.kcp->snd_buf));
    EXPECT_EQ(1U, block.kcp->snd_una);
    EXPECT_EQ(10U, block.kcp->cwnd);
    EXPECT_EQ(0U, block.kcp->snd_buf.first->fastack);
}

TEST(IkcpInput, EveryCommandUpdatesThePeerWindow) {
    const Block block;
    uint32_t wnd = 40000;
    for (const uint32_t cmd : {81U, 82U, 83U, 84U}) {
        ++wnd;
        EXPECT_EQ(0, block.input(Wire{.cmd = cmd, .wnd = wnd}));
        EXPECT_EQ(wnd, block.kcp->rmt_wnd);
    }
}

TEST(IkcpInput, EveryCommandDropsWhatIsBelowUna) {
    for (const uint32_t start : {0U, 0xFFFFFFFEU, 0x7FFFFFFEU}) {
        Block block;
        block.start_sending_at(start);
        block.send_many(8);
        block.flush_at(0);
        uint32_t una = start;
        for (const uint32_t cmd : {81U, 83U, 84U, 82U}) {
            ++una;
            EXPECT_EQ(0, block.input(Wire{.cmd = cmd, .sn = start - 100, .una = una}));
            EXPECT_EQ(una, block.kcp->snd_una);
            EXPECT_EQ(start + 8 - una, block.kcp->nsnd_buf);
        }
        // An old one, and one beyond everything that was sent.
        EXPECT_EQ(0, block.input(Wire{.cmd = 84, .una = start + 2}));
        EXPECT_EQ(start + 4, block.kcp->snd_una);
        EXPECT_EQ(0, block.input(Wire{.cmd = 84, .una = start + 1000}));
        EXPECT_EQ(start + 8, block.kcp->snd_una);
        EXPECT_EQ(0U, block.kcp->nsnd_buf);
        EXPECT_EQ(0, block.input(Wire{.cmd = 84, .una = start + 2000}));
        EXPECT_EQ(start + 8, block.kcp->snd_una);
    }
}

TEST(IkcpInput, AnAckRemovesItsSegment) {
    for (const uint32_t start : {0U, 0xFFFFFFFEU, 0x7FFFFFFEU}) {
        Block block;
        block.start_sending_at(start);
        block.send_many(5);
        block.flush_at(0);
        block.ack({start + 2}, start);
        EXPECT_EQ((Numbers{start, start + 1, start + 3, start + 4}),
                  numbers_of(block.kcp->snd_buf));
        EXPECT_EQ(start, block.kcp->snd_una);
        EXPECT_EQ(4U, block.kcp->nsnd_buf);
        block.ack({start + 2, start - 1, start + 5, start + 77}, start);
        EXPECT_EQ(4U, block.kcp->nsnd_buf);
        block.ack({start}, start);
        EXPECT_EQ(start + 1, block.kcp->snd_una);
        block.ack({start + 1}, start);
        EXPECT_EQ(start + 3, block.kcp->snd_una);
        block.ack({start + 4}, start);
        EXPECT_EQ(start + 3, block.kcp->snd_una);
        block.ack({start + 3}, start);
        EXPECT_EQ(start + 5, block.kcp->snd_una);
        EXPECT_EQ(0U, block.kcp->nsnd_buf);
    }
}

TEST(IkcpInput, TheReceiveWindowHasTwoEdges) {
    for (const uint32_t start : {0U, 0xFFFFFFFEU, 0x7FFFFFFEU}) {
        Block block;
        block.kcp->rcv_nxt = start;
        block.kcp->rcv_wnd = 4;
        for (const uint32_t offset : {4U, 5U, 1000U, 0x7FFFFFFFU}) {
            EXPECT_EQ(0, block.input(Wire{.sn = start + offset}));
        }
        EXPECT_EQ(0U, block.kcp->ackcount);
        EXPECT_EQ(0U, block.kcp->nrcv_buf);
        EXPECT_EQ(0, block.input(Wire{.ts = 99, .sn = start + 3}));
        EXPECT_EQ((Numbers{start + 3}), acked(block.kcp));
        EXPECT_EQ(99U, block.kcp->acklist[0].ts);
        EXPECT_EQ(1U, block.kcp->nrcv_buf);
        // Below: acknowledged again, and not kept.
        EXPECT_EQ(0, block.input(Wire{.ts = 98, .sn = start - 1}));
        EXPECT_EQ((Numbers{start + 3, start - 1}), acked(block.kcp));
        EXPECT_EQ(98U, block.kcp->acklist[1].ts);
        EXPECT_EQ(1U, block.kcp->nrcv_buf);
        EXPECT_EQ(0U, block.kcp->nrcv_que);
        EXPECT_EQ(0, block.input(Wire{.sn = start - 1000}));
        EXPECT_EQ(3U, block.kcp->ackcount);
    }
}

TEST(IkcpInput, ReceivedSegmentsAreSortedAndRepetitionsDropped) {
    for (const uint32_t start : {0U, 0xFFFFFFFDU, 0x7FFFFFFDU}) {
        Block block;
        block.kcp->rcv_nxt = start;
        for (const uint32_t offset : {3U, 1U, 5U, 1U, 3U, 4U, 2U, 5U}) {
            EXPECT_EQ(0, block.input(Wire{.ts = block.kcp->ackcount,
                                          .sn = start + offset,
                                          .data = std::to_string(offset) +
                                                  std::to_string(block.kcp->ackcount)}));
        }
        EXPECT_EQ((Numbers{start + 1, start + 2, start + 3, start + 4, start + 5}),
                  numbers_of(block.kcp->rcv_buf));
        EXPECT_EQ(5U, block.kcp->nrcv_buf);
        EXPECT_EQ(8U, block.kcp->ackcount); // duplicates too
        EXPECT_EQ("-1", received(block));
        EXPECT_EQ(start, block.kcp->rcv_nxt);
        EXPECT_EQ(0, block.input(Wire{.sn = start, .data = "0"}));
        EXPECT_EQ(start + 6, block.kcp->rcv_nxt);
        for (const char *text : {"0", "11", "26", "30", "45", "52"}) {
            EXPECT_EQ(text, received(block));
        }
        EXPECT_EQ(0U, block.kcp->nrcv_buf);
        EXPECT_EQ(9U, block.flush_at(5).size());
    }
}

TEST(IkcpInput, AMessageIsAsLongAsItsFirstFragmentSays) {
    const Block block;
    EXPECT_EQ(0, block.input(Wire{.frg = 2, .sn = 0, .data = "a"}));
    EXPECT_EQ(0, block.input(Wire{.frg = 0, .sn = 1, .data = "b"}));
    EXPECT_EQ("-2", received(block));
    EXPECT_EQ(0, block.input(Wire{.frg = 255, .sn = 2, .data = "c"}));
    EXPECT_EQ("abc", received(block));
    EXPECT_EQ(0, block.input(Wire{.frg = 255, .sn = 3, .data = "d"}));
    EXPECT_EQ("-2", received(block));
}

TEST(IkcpInput, AcksEchoTheTimeOfSending) {
    Block block;
    EXPECT_EQ(0, block.input(Wire{.ts = 0xFFFFFFFFU, .sn = 1}));
    EXPECT_EQ(0, block.input(Wire{.ts = 0x80000000U, .sn = 0}));
    const std::vector<Wire> wires = block.flush_at(1234);
    ASSERT_EQ(2U, wires.size());
    EXPECT_EQ(82U, wires[0].cmd);
    EXPECT_EQ(1U, wires[0].sn);
    EXPECT_EQ(0xFFFFFFFFU, wires[0].ts);
    EXPECT_EQ(2U, wires[0].una);
    EXPECT_EQ(126U, wires[0].wnd);
    EXPECT_EQ(0U, wires[1].sn);
    EXPECT_EQ(0x80000000U, wires[1].ts);
}

TEST(IkcpInput, AnAskIsAnsweredByATellOnly) {
    Block block;
    EXPECT_EQ(0, block.input(Wire{.cmd = 84}));
    EXPECT_TRUE(block.flush_at(0).empty());
    EXPECT_EQ(0, block.input(Wire{.cmd = 83, .ts = 5, .sn = 6}));
    const std::vector<Wire> wires = block.flush_at(1);
    ASSERT_EQ(1U, wires.size());
    EXPECT_EQ(84U, wires[0].cmd);
    EXPECT_TRUE(block.flush_at(2).empty());
}
