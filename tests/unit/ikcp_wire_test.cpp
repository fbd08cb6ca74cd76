// What a block sends and how it takes what it receives, segment by segment. The other end is the
// test itself: it writes and reads the bytes on the wire.
#include "ikcp.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

namespace {

struct Wire {
    uint32_t conv = 7;
    uint32_t cmd = 81;
    uint32_t frg = 0;
    uint32_t wnd = 128;
    uint32_t ts = 0;
    uint32_t sn = 0;
    uint32_t una = 0;
    std::string data = {};
    uint32_t claimed = 0xFFFFFFFFU; // len, where it is not data.size()
};

void put(std::string &bytes, uint32_t value, int count) {
    for (int i = 0; i < count; ++i) {
        bytes.push_back(static_cast<char>(value % 256));
        value /= 256;
    }
}

std::string encode(const Wire &wire) {
    std::string bytes;
    put(bytes, wire.conv, 4);
    put(bytes, wire.cmd, 1);
    put(bytes, wire.frg, 1);
    put(bytes, wire.wnd, 2);
    put(bytes, wire.ts, 4);
    put(bytes, wire.sn, 4);
    put(bytes, wire.una, 4);
    put(bytes, wire.claimed != 0xFFFFFFFFU ? wire.claimed : static_cast<uint32_t>(wire.data.size()),
        4);
    return bytes + wire.data;
}

uint32_t get(const std::string &bytes, size_t at, int count) {
    uint32_t value = 0;
    for (int i = count - 1; i >= 0; --i) {
        value = value * 256 + static_cast<uint8_t>(bytes.at(at + static_cast<size_t>(i)));
    }
    return value;
}

std::vector<Wire> decode(const std::string &bytes) {
    std::vector<Wire> result;
    for (size_t at = 0; at < bytes.size();) {
        Wire wire;
        wire.conv = get(bytes, at, 4);
        wire.cmd = get(bytes, at + 4, 1);
        wire.frg = get(bytes, at + 5, 1);
        wire.wnd = get(bytes, at + 6, 2);
        wire.ts = get(bytes, at + 8, 4);
        wire.sn = get(bytes, at + 12, 4);
        wire.una = get(bytes, at + 16, 4);
        wire.data = bytes.substr(at + 24, get(bytes, at + 20, 4));
        EXPECT_EQ(get(bytes, at + 20, 4), wire.data.size());
        at += 24 + wire.data.size();
        result.push_back(wire);
    }
    return result;
}

// A block with congestion control off, whose datagrams are kept.
struct Block {
    Block() : kcp(ikcp_create(7, this)) {
        kcp->output = [](const char *buf, int len, ikcpcb *, void *user) {
            static_cast<Block *>(user)->sent.emplace_back(buf, static_cast<size_t>(len));
            return 0;
        };
        kcp->nocwnd = 1;
        kcp->updated = 1;
    }
    ~Block() {
        ikcp_release(kcp);
    }
    Block(const Block &) = delete;
    Block &operator=(const Block &) = delete;

    void send(size_t size, char letter = 'x') const {
        EXPECT_EQ(0, ikcp_send(kcp, std::string(size, letter).data(), static_cast<int>(size)));
    }
    void send_many(int count) const {
        for (int i = 0; i < count; ++i) {
            send(1);
        }
    }
    // Flushes at a time and gives the segments that left.
    std::vector<Wire> flush_at(uint32_t time) {
        kcp->current = time;
        ikcp_flush(kcp);
        std::vector<Wire> result;
        for (const std::string &datagram : sent) {
            for (const Wire &wire : decode(datagram)) {
                result.push_back(wire);
            }
        }
        sent.clear();
        return result;
    }
    int input(const std::string &bytes) const {
        // A copy of exactly that size, so that reading past its end is noticed.
        const std::vector<char> exact(bytes.begin(), bytes.end());
        return ikcp_input(kcp, exact.data(), static_cast<long>(exact.size()));
    }
    int input(const Wire &wire) const {
        return input(encode(wire));
    }
    // Acks for these segments in one datagram. `una` stays behind, as after a loss.
    void ack(const std::vector<uint32_t> &numbers, uint32_t una = 0, uint32_t wnd = 128) const {
        std::string bytes;
        for (const uint32_t sn : numbers) {
            bytes += encode({.cmd = 82, .wnd = wnd, .ts = kcp->current, .sn = sn, .una = una});
        }
        EXPECT_EQ(0, input(bytes));
    }
    void start_sending_at(uint32_t sn) const {
        kcp->snd_una = sn;
        kcp->snd_nxt = sn;
    }

    ikcpcb *kcp;
    std::vector<std::string> sent;
};

using Numbers = std::vector<uint32_t>;

Numbers numbers_of(const IkcpList &list) {
    Numbers result;
    for (const IkcpSegment *segment = list.first; segment != nullptr; segment = segment->next) {
        result.push_back(segment->sn);
    }
    return result;
}

// The sequence numbers of the pushes.
Numbers pushed(const std::vector<Wire> &wires) {
    Numbers result;
    for (const Wire &wire : wires) {
        if (wire.cmd == 81) {
            result.push_back(wire.sn);
        }
    }
    return result;
}

Numbers acked(const ikcpcb *kcp) {
    Numbers result;
    for (uint32_t i = 0; i < kcp->ackcount; ++i) {
        result.push_back(kcp->acklist[i].sn);
    }
    return result;
}

std::string received(const Block &block) {
    char room[4000];
    const int size = ikcp_recv(block.kcp, room, sizeof room);
    return size < 0 ? std::to_string(size) : std::string(room, static_cast<size_t>(size));
}

// The times within `end` ms at which a single segment leaves a block that flushes every ms.
Numbers transmissions(Block &block, uint32_t start, uint32_t end) {
    Numbers result;
    for (uint32_t time = 0; time <= end; ++time) {
        if (!pushed(block.flush_at(start + time)).empty()) {
            result.push_back(time);
        }
    }
    return result;
}

} // namespace

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
        // One that is old, and one beyond all that was sent.
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
        EXPECT_EQ(8U, block.kcp->ackcount); // repetitions too
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

TEST(IkcpRtt, FollowsTheEstimate) {
    std::mt19937 engine(1);
    const auto random = [&] { return static_cast<uint32_t>(engine()); };
    for (int run = 0; run < 200; ++run) {
        Block block;
        ikcp_nodelay(block.kcp, static_cast<int>(random() % 2),
                     static_cast<int>(10 + random() % (run % 2 == 0 ? 50 : 5000)), 0, 1);
        const uint32_t largest = run % 5 == 0 ? 0x7FFFFFFFU : run % 5 == 1 ? 70000U : 1000U;
        const double shortest = block.kcp->rx_minrto;
        double srtt = 0;
        double rttval = 0;
        for (int i = 0; i < 100; ++i) {
            const uint32_t rtt = random() % largest;
            block.kcp->current = random();
            EXPECT_EQ(0, block.input(Wire{.cmd = 82, .ts = block.kcp->current - rtt}));
            if (srtt == 0) {
                srtt = rtt;
                rttval = std::floor(rtt / 2.0);
            } else {
                rttval = std::floor((3 * rttval + std::fabs(rtt - srtt)) / 4);
                srtt = std::max(std::floor((7 * srtt + rtt) / 8), 1.0);
            }
            const double rto = srtt + std::max<double>(block.kcp->interval, 4 * rttval);
            ASSERT_EQ(srtt, block.kcp->rx_srtt);
            ASSERT_EQ(rttval, block.kcp->rx_rttval);
            ASSERT_EQ(std::max(std::min(rto, 60000.0), shortest), block.kcp->rx_rto);
        }
    }
}

TEST(IkcpRtt, KnownSamples) {
    Block block;
    ikcp_nodelay(block.kcp, 0, 10, 0, 1);
    block.kcp->current = 5000;
    const auto sample = [&](uint32_t rtt) {
        EXPECT_EQ(0, block.input(Wire{.cmd = 82, .ts = 5000 - rtt}));
        return std::vector<int>{block.kcp->rx_srtt, block.kcp->rx_rttval, block.kcp->rx_rto};
    };
    EXPECT_EQ((std::vector<int>{101, 50, 301}), sample(101));
    EXPECT_EQ((std::vector<int>{113, 62, 361}), sample(200)); // 150 + 99, 707 + 200
    EXPECT_EQ((std::vector<int>{98, 74, 394}), sample(0));    // 186 + 113, 791
    for (int i = 0; i < 40; ++i) {
        sample(0);
    }
    EXPECT_EQ((std::vector<int>{1, 1, 100}), sample(0)); // bounded from below
    block.kcp->rx_srtt = 0;
    EXPECT_EQ((std::vector<int>{5000, 2500, 15000}), sample(5000));
    EXPECT_EQ((std::vector<int>{16875, 25625, 60000}), sample(100000)); // and from above
}

TEST(IkcpRtt, ATimeOfSendingInTheFutureIsNoSample) {
    Block block;
    block.send_many(2);
    block.flush_at(100);
    EXPECT_EQ(0, block.input(Wire{.cmd = 82, .ts = 101, .sn = 0}));
    EXPECT_EQ(0, block.kcp->rx_srtt);
    EXPECT_EQ(200, block.kcp->rx_rto);
    EXPECT_EQ((Numbers{1}), numbers_of(block.kcp->snd_buf));
    EXPECT_EQ(0, block.input(Wire{.cmd = 82, .ts = 40, .sn = 1}));
    EXPECT_EQ(60, block.kcp->rx_srtt);
    // Across the wrap.
    block.kcp->rx_srtt = 0;
    block.kcp->current = 20;
    EXPECT_EQ(0, block.input(Wire{.cmd = 82, .ts = 0xFFFFFFECU, .sn = 1}));
    EXPECT_EQ(40, block.kcp->rx_srtt);
}

TEST(IkcpWindow, TheSmallestWindowLimitsWhatIsSent) {
    for (const uint32_t start : {0U, 0xFFFFFFFEU, 0x7FFFFFFEU}) {
        const struct {
            uint32_t snd, rmt, cwnd;
            int nocwnd;
            uint32_t expected;
        } cases[] = {{3, 9, 8, 0, 3}, {9, 4, 8, 0, 4}, {9, 8, 5, 0, 5},       {9, 8, 5, 1, 8},
                     {3, 0, 5, 1, 0}, {0, 3, 5, 1, 0}, {100, 100, 100, 0, 20}};
        for (const auto &[snd, rmt, cwnd, nocwnd, expected] : cases) {
            Block block;
            block.start_sending_at(start);
            block.kcp->snd_wnd = snd;
            block.kcp->rmt_wnd = rmt;
            block.kcp->cwnd = cwnd;
            block.kcp->nocwnd = nocwnd;
            block.send_many(20);
            EXPECT_EQ(expected, pushed(block.flush_at(0)).size());
            EXPECT_EQ(expected, block.kcp->nsnd_buf);
            EXPECT_EQ(20 - expected, block.kcp->nsnd_que);
            EXPECT_EQ(start + expected, block.kcp->snd_nxt);
            EXPECT_EQ(start, block.kcp->snd_una);
        }
    }
}

TEST(IkcpWindow, MovesOnWithTheFirstUnacknowledged) {
    Block block;
    block.kcp->snd_wnd = 3;
    block.send_many(10);
    EXPECT_EQ((Numbers{0, 1, 2}), pushed(block.flush_at(0)));
    block.ack({1, 2});
    EXPECT_TRUE(pushed(block.flush_at(1)).empty());
    block.ack({0});
    EXPECT_EQ((Numbers{3, 4, 5}), pushed(block.flush_at(2)));
}

TEST(IkcpProbe, WaitsLongerEachTimeAndStartsAnew) {
    for (const uint32_t start : {0U, 0xFFFFFF00U, 0xFFFFD000U, 0x7FFFFF00U}) {
        Block block;
        const auto asks = [&](uint32_t from, uint32_t to) {
            Numbers result;
            for (uint32_t time = from; time <= to; ++time) {
                for (const Wire &wire : block.flush_at(start + time)) {
                    EXPECT_EQ(83U, wire.cmd);
                    result.push_back(time);
                }
            }
            return result;
        };
        EXPECT_TRUE(asks(0, 20).empty());
        EXPECT_EQ(0U, block.kcp->probe_wait);
        EXPECT_EQ(0, block.input(Wire{.cmd = 84, .wnd = 0}));
        block.send(1); // waits all the time
        // 7000, then 10500, 15750, 23625, 35437, 53155, 79732, 119598, 120000, 120000
        EXPECT_EQ((Numbers{7021, 17521, 33271, 56896, 92333, 145488, 225220, 344818, 464818}),
                  asks(21, 500000));
        EXPECT_EQ(120000U, block.kcp->probe_wait);
        EXPECT_EQ(start + 584818, block.kcp->ts_probe);
        EXPECT_EQ(0, block.input(Wire{.cmd = 84, .wnd = 1}));
        EXPECT_EQ((Numbers{0}), pushed(block.flush_at(start + 500001)));
        EXPECT_EQ(0U, block.kcp->probe_wait);
        EXPECT_EQ(0U, block.kcp->ts_probe);
        block.ack({0}, 1, 0);
        EXPECT_EQ((Numbers{507002, 517502}), asks(500002, 520000));
    }
}

TEST(IkcpProbe, LeavesWithAnAnswerThatIsDue) {
    Block block;
    EXPECT_EQ(0, block.input(Wire{.cmd = 84, .wnd = 0}));
    EXPECT_TRUE(block.flush_at(0).empty());
    EXPECT_EQ(0, block.input(Wire{.cmd = 83, .wnd = 0}));
    const std::vector<Wire> wires = block.flush_at(7000);
    ASSERT_EQ(2U, wires.size());
    EXPECT_EQ(83U, wires[0].cmd);
    EXPECT_EQ(84U, wires[1].cmd);
}

TEST(IkcpFastResend, CountsOncePerDatagramBelowTheHighestAck) {
    for (const uint32_t start : {0U, 0xFFFFFFFDU, 0x7FFFFFFDU}) {
        Block block;
        block.start_sending_at(start);
        block.send_many(8);
        block.flush_at(0);
        const auto counts = [&] {
            Numbers result;
            for (const IkcpSegment *segment = block.kcp->snd_buf.first; segment != nullptr;
                 segment = segment->next) {
                result.push_back(segment->fastack);
            }
            return result;
        };
        block.ack({start + 4, start + 2}, start); // left: 0 1 3 5 6 7
        EXPECT_EQ((Numbers{1, 1, 1, 0, 0, 0}), counts());
        block.ack({start + 3}, start); // left: 0 1 5 6 7
        EXPECT_EQ((Numbers{2, 2, 0, 0, 0}), counts());
        block.ack({start + 1, start + 6}, start); // left: 0 5 7
        EXPECT_EQ((Numbers{3, 1, 0}), counts());
        block.ack({start + 5}, start); // left: 0 7
        EXPECT_EQ((Numbers{4, 0}), counts());
        block.ack({start + 5}, start); // a repeated ack counts as well
        EXPECT_EQ((Numbers{5, 0}), counts());
        block.ack({start + 7}, start);
        EXPECT_EQ((Numbers{6}), counts());
        // Other commands are no acks, and an ack of the first segment passes none.
        EXPECT_EQ(0, block.input(Wire{.cmd = 84, .sn = start + 7, .una = start}));
        EXPECT_EQ(0, block.input(Wire{.cmd = 81, .sn = start + 7, .una = start}));
        EXPECT_EQ((Numbers{6}), counts());
        block.ack({start - 1}, start);
        EXPECT_EQ((Numbers{6}), counts());
    }
}

TEST(IkcpFastResend, RepeatsAtTheCount) {
    for (const int resend : {1, 2, 3}) {
        Block block;
        block.kcp->fastresend = resend;
        block.send_many(8);
        block.flush_at(0);
        for (uint32_t sn = 1; sn <= static_cast<uint32_t>(resend); ++sn) {
            EXPECT_TRUE(pushed(block.flush_at(sn)).empty());
            block.ack({sn});
        }
        const std::vector<Wire> wires = block.flush_at(50);
        ASSERT_EQ((Numbers{0}), pushed(wires));
        EXPECT_EQ(50U, wires[0].ts);
        const IkcpSegment *segment = block.kcp->snd_buf.first;
        EXPECT_EQ(0U, segment->fastack);
        EXPECT_EQ(2U, segment->xmit);
        EXPECT_EQ(200U, segment->rto);
        EXPECT_EQ(250U, segment->resendts);
        EXPECT_EQ(0U, block.kcp->xmit);
        EXPECT_TRUE(pushed(block.flush_at(51)).empty());
    }
}

TEST(IkcpFastResend, IsOffAtZero) {
    Block block;
    block.send_many(8);
    block.flush_at(0);
    block.ack({1});
    block.ack({2});
    EXPECT_TRUE(pushed(block.flush_at(1)).empty());
}

TEST(IkcpFastResend, HasALimitPerSegment) {
    for (const int limit : {5, 2, 0}) {
        Block block;
        block.kcp->fastresend = 1;
        block.kcp->fastlimit = limit;
        block.send_many(30);
        block.flush_at(0);
        int repeated = 0;
        for (uint32_t sn = 1; sn <= 15; ++sn) {
            block.ack({sn});
            repeated += pushed(block.flush_at(0)) == Numbers{0} ? 1 : 0;
        }
        EXPECT_EQ(limit == 0 ? 15 : limit, repeated);
        EXPECT_EQ(static_cast<uint32_t>(repeated) + 1, block.kcp->snd_buf.first->xmit);
    }
}

TEST(IkcpFastResend, ATimeOutComesFirstAndStartsTheCountAnew) {
    Block block;
    block.kcp->fastresend = 2;
    block.send_many(3);
    block.flush_at(0);
    block.ack({1});
    EXPECT_EQ((Numbers{0, 2}), pushed(block.flush_at(225)));
    EXPECT_EQ(0U, block.kcp->snd_buf.first->fastack);
    EXPECT_EQ(2U, block.kcp->xmit);
    block.ack({2});
    block.ack({2});
    EXPECT_EQ((Numbers{0}), pushed(block.flush_at(10000)));
    EXPECT_EQ(3U, block.kcp->xmit); // by the clock, not by the count
    EXPECT_EQ(0U, block.kcp->snd_buf.first->fastack);
}

TEST(IkcpTimeOut, GrowsByTheMode) {
    for (const uint32_t start : {0U, 0xFFFFFF80U, 0xFFFFFE00U, 0x7FFFFF80U}) {
        const struct {
            int nodelay;
            Numbers times;
        } cases[] = {
            {0, {0, 225, 625, 1425, 3025, 6225, 12625}},
            {1, {0, 200, 500, 950, 1625, 2637, 4155, 6432, 9847, 14969}},
            {2,
             {0, 200, 500, 900, 1400, 2000, 2700, 3500, 4400, 5400, 6500, 7700, 9000, 10400, 11900,
              13500}},
            {3,
             {0, 200, 500, 900, 1400, 2000, 2700, 3500, 4400, 5400, 6500, 7700, 9000, 10400, 11900,
              13500}},
        };
        for (const auto &[nodelay, times] : cases) {
            Block block;
            ikcp_nodelay(block.kcp, nodelay, 10, 0, 1);
            block.send(1);
            EXPECT_EQ(times, transmissions(block, start, 15000)) << nodelay;
            EXPECT_EQ(times.size(), block.kcp->snd_buf.first->xmit);
            EXPECT_EQ(times.size() - 1, block.kcp->xmit);
            EXPECT_EQ(start + times.back(), block.kcp->snd_buf.first->ts);
        }
    }
}

TEST(IkcpTimeOut, FollowsAnEstimateThatChanged) {
    const struct {
        int nodelay;
        uint32_t second; // rto after the first time-out, with an estimate of 501 by then
        uint32_t third;  // with an estimate of 31
    } cases[] = {{0, 701, 1402}, {1, 300, 450}, {2, 450, 465}};
    for (const auto &[nodelay, second, third] : cases) {
        Block block;
        ikcp_nodelay(block.kcp, nodelay, 10, 0, 1);
        block.send(1);
        block.flush_at(0);
        const IkcpSegment *segment = block.kcp->snd_buf.first;
        EXPECT_EQ(200U, segment->rto);
        EXPECT_EQ(nodelay == 0 ? 225U : 200U, segment->resendts);
        block.kcp->rx_rto = 501;
        EXPECT_EQ(1U, block.flush_at(300).size());
        EXPECT_EQ(second, segment->rto);
        EXPECT_EQ(300 + second, segment->resendts);
        block.kcp->rx_rto = 31;
        EXPECT_EQ(1U, block.flush_at(2000).size());
        EXPECT_EQ(third, segment->rto);
        EXPECT_EQ(2000 + third, segment->resendts);
    }
}

TEST(IkcpTimeOut, ANewSegmentBeginsWithTheEstimate) {
    for (const int nodelay : {0, 1, 2}) {
        Block block;
        ikcp_nodelay(block.kcp, nodelay, 10, 0, 1);
        block.kcp->rx_rto = 807;
        block.send(1);
        block.flush_at(1000);
        EXPECT_EQ(807U, block.kcp->snd_buf.first->rto);
        EXPECT_EQ(nodelay == 0 ? 1907U : 1807U, block.kcp->snd_buf.first->resendts);
    }
}

TEST(IkcpTimeOut, StaysWithinTheClock) {
    for (const int nodelay : {0, 1, 2}) {
        Block block;
        ikcp_nodelay(block.kcp, nodelay, 10, 0, 1);
        block.send(1);
        uint32_t time = 0;
        block.flush_at(time);
        for (int i = 0; i < 100; ++i) {
            time = block.kcp->snd_buf.first->resendts;
            EXPECT_TRUE(block.flush_at(time - 1).empty()) << i;
            EXPECT_EQ(1U, block.flush_at(time).size()) << i;
            EXPECT_TRUE(block.flush_at(time).empty()) << i;
        }
        EXPECT_LE(block.kcp->snd_buf.first->rto, 1U << 30);
    }
}

TEST(IkcpTimeOut, RepetitionsCarryTheNewState) {
    Block block;
    block.send(5, 'a');
    block.flush_at(0);
    EXPECT_EQ(0, block.input(Wire{.sn = 0, .data = "b"}));
    const std::vector<Wire> wires = block.flush_at(400);
    ASSERT_EQ(2U, wires.size());
    EXPECT_EQ(81U, wires[1].cmd);
    EXPECT_EQ(400U, wires[1].ts);
    EXPECT_EQ(1U, wires[1].una);
    EXPECT_EQ(127U, wires[1].wnd);
    EXPECT_EQ("aaaaa", wires[1].data);
}

TEST(IkcpDeadLink, IsSeenAtTheLastAllowedTransmission) {
    for (const uint32_t dead_link : {20U, 3U}) {
        Block block;
        ikcp_nodelay(block.kcp, 2, 10, 0, 1);
        block.kcp->dead_link = dead_link;
        block.send(1);
        block.flush_at(0);
        for (uint32_t sent = 1; sent < dead_link; ++sent) {
            EXPECT_EQ(0U, block.kcp->state) << sent;
            EXPECT_EQ(1U, block.flush_at(block.kcp->snd_buf.first->resendts).size());
        }
        EXPECT_EQ(0xFFFFFFFFU, block.kcp->state);
        // The block keeps working.
        EXPECT_EQ(1U, block.flush_at(block.kcp->snd_buf.first->resendts).size());
        block.ack({0}, 1);
        block.send(1);
        EXPECT_EQ((Numbers{1}), pushed(block.flush_at(block.kcp->current)));
        EXPECT_EQ(0, block.input(Wire{.sn = 0, .data = "text"}));
        EXPECT_EQ("text", received(block));
        EXPECT_EQ(0xFFFFFFFFU, block.kcp->state);
    }
}

TEST(IkcpCongestion, TheFirstFlushOpensTheWindow) {
    Block block;
    block.kcp->nocwnd = 0;
    block.send_many(3);
    EXPECT_TRUE(block.flush_at(0).empty());
    EXPECT_EQ(1U, block.kcp->cwnd);
    EXPECT_EQ(1376U, block.kcp->incr);
    EXPECT_EQ((Numbers{0}), pushed(block.flush_at(1)));
}

TEST(IkcpCongestion, GrowsBySlowStartThenSlowly) {
    Block block;
    ASSERT_EQ(0, ikcp_setmtu(block.kcp, 184)); // mss 160: 10 more per ack, and 160 * 160 / incr
    block.kcp->nocwnd = 0;
    block.kcp->ssthresh = 4;
    block.kcp->rmt_wnd = 7;
    block.send_many(100);
    block.flush_at(0);
    uint32_t sn = 0;
    const auto ack = [&] {
        block.flush_at(0);
        block.ack({sn}, sn, 7);
        ++sn;
        return Numbers{block.kcp->cwnd, block.kcp->incr};
    };
    EXPECT_EQ((Numbers{2, 320}), ack());
    EXPECT_EQ((Numbers{3, 480}), ack());
    EXPECT_EQ((Numbers{4, 640}), ack());
    EXPECT_EQ((Numbers{4, 690}), ack()); // 40 + 10
    EXPECT_EQ((Numbers{4, 737}), ack()); // 37 + 10
    EXPECT_EQ((Numbers{4, 781}), ack()); // 34 + 10
    EXPECT_EQ((Numbers{6, 823}), ack()); // 32 + 10: 800 reached, rounded up
    EXPECT_EQ((Numbers{6, 864}), ack());
    block.kcp->incr = 1130;
    EXPECT_EQ((Numbers{7, 1120}), ack()); // 8 by the sum, cut to the peer's window
    EXPECT_EQ((Numbers{7, 1120}), ack()); // not below it any more
}

TEST(IkcpCongestion, FollowsTheModel) {
    std::mt19937 engine(2);
    const auto random = [&] { return static_cast<uint32_t>(engine()); };
    for (int run = 0; run < 300; ++run) {
        Block block;
        const int mtu = 50 + static_cast<int>(random() % 2000);
        ASSERT_EQ(0, ikcp_setmtu(block.kcp, mtu));
        const double mss = mtu - 24;
        block.kcp->nocwnd = 0;
        block.kcp->cwnd = 1 + random() % 20;
        block.kcp->incr = run % 3 == 0 ? 0 : random() % 100000;
        block.kcp->ssthresh = 2 + random() % 30;
        block.kcp->snd_wnd = 1000;
        double cwnd = block.kcp->cwnd;
        double incr = block.kcp->incr;
        for (uint32_t sn = 0; sn < 60; ++sn) {
            const double wnd = random() % 64;
            block.send(1);
            block.kcp->snd_nxt = sn;
            block.kcp->rmt_wnd = 1000;
            block.flush_at(0);
            ASSERT_EQ(sn, block.kcp->snd_una);
            block.ack({sn}, sn, static_cast<uint32_t>(wnd));
            if (cwnd < wnd) {
                if (cwnd < block.kcp->ssthresh) {
                    cwnd += 1;
                    incr += mss;
                } else {
                    incr = std::max(incr, mss);
                    incr += std::floor(mss * mss / incr) + std::floor(mss / 16);
                    if (!((cwnd + 1) * mss > incr)) {
                        cwnd = std::floor((incr + mss - 1) / mss);
                    }
                }
                if (cwnd > wnd) {
                    cwnd = wnd;
                    incr = wnd * mss;
                }
            }
            ASSERT_EQ(cwnd, block.kcp->cwnd);
            ASSERT_EQ(incr, block.kcp->incr);
        }
    }
}

TEST(IkcpCongestion, GrowsOncePerDatagramAndOnlyWithProgress) {
    for (const uint32_t start : {0U, 0xFFFFFFFEU, 0x7FFFFFFEU}) {
        Block block;
        block.start_sending_at(start);
        block.kcp->nocwnd = 0;
        block.kcp->cwnd = 10;
        block.kcp->ssthresh = 100;
        block.send_many(9);
        block.flush_at(0);
        block.ack({start + 3}, start);
        EXPECT_EQ(10U, block.kcp->cwnd);
        block.ack({start, start + 1, start + 2}, start);
        EXPECT_EQ(start + 4, block.kcp->snd_una);
        EXPECT_EQ(11U, block.kcp->cwnd);
        EXPECT_EQ(0, block.input(Wire{.cmd = 84, .una = start + 5})); // progress by una
        EXPECT_EQ(12U, block.kcp->cwnd);
        EXPECT_EQ(0, block.input(Wire{.cmd = 84, .una = start + 5}));
        EXPECT_EQ(12U, block.kcp->cwnd);
        block.kcp->nocwnd = 1;
        block.ack({start + 5}, start);
        EXPECT_EQ(start + 6, block.kcp->snd_una);
        EXPECT_EQ(12U, block.kcp->cwnd);
    }
}

TEST(IkcpCongestion, ShrinksAfterAFastResend) {
    for (const uint32_t count : {2U, 3U, 4U, 5U, 12U, 13U}) {
        for (const uint32_t start : {0U, 0xFFFFFFFEU}) {
            Block block;
            block.start_sending_at(start);
            block.kcp->nocwnd = 0;
            block.kcp->fastresend = 3;
            block.kcp->cwnd = 20;
            block.send_many(static_cast<int>(count));
            block.flush_at(0);
            block.kcp->snd_buf.first->fastack = 3;
            EXPECT_EQ((Numbers{start}), pushed(block.flush_at(1)));
            const uint32_t half = count < 4 ? 2 : count / 2;
            EXPECT_EQ(half, block.kcp->ssthresh);
            EXPECT_EQ(half + 3, block.kcp->cwnd);
            EXPECT_EQ((half + 3) * 1376, block.kcp->incr);
        }
    }
}

TEST(IkcpCongestion, ShrinksAfterATimeOut) {
    for (const uint32_t cwnd : {1U, 2U, 3U, 4U, 5U, 21U}) {
        Block block;
        block.kcp->nocwnd = 0;
        block.kcp->cwnd = cwnd;
        block.kcp->incr = 77777;
        block.send(1);
        block.flush_at(0);
        EXPECT_EQ(cwnd, block.kcp->cwnd);
        EXPECT_EQ(77777U, block.kcp->incr);
        block.flush_at(500);
        EXPECT_EQ(cwnd < 4 ? 2 : cwnd / 2, block.kcp->ssthresh);
        EXPECT_EQ(1U, block.kcp->cwnd);
        EXPECT_EQ(1376U, block.kcp->incr);
    }
}

TEST(IkcpCongestion, BothInOneFlushShrinkOneAfterTheOther) {
    Block block;
    block.kcp->fastresend = 2;
    block.send_many(20);
    block.flush_at(0);
    block.kcp->snd_buf.first->fastack = 2;
    block.kcp->snd_buf.last->resendts = 5;
    EXPECT_EQ((Numbers{0, 19}), pushed(block.flush_at(6)));
    EXPECT_EQ(6U, block.kcp->ssthresh); // 20 / 2 + 2, halved
    EXPECT_EQ(1U, block.kcp->cwnd);
    EXPECT_EQ(1376U, block.kcp->incr);
}
