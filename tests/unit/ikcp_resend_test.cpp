// When a block sends and retransmits: round-trip times, windows, probes, fast retransmissions,
// time-outs, dead links and congestion.
#include "ikcp_wire.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <random>
#include <vector>

using namespace ikcp_wire;

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
        // Other commands are not acks, and an ack of the first segment skips none.
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
    EXPECT_EQ((Numbers{7, 1120}), ack()); // the sum gives 8, limited to the peer's window
    EXPECT_EQ((Numbers{7, 1120}), ack()); // no longer below it
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
