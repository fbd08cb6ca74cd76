// Two blocks connected by a simulated network that loses, repeats, reorders and delays datagrams.
// Time is simulated too, and everything depends on a seed, so a failing run can be repeated alone.
#include "ikcp.h"

#include <algorithm>
#include <cstdint>
#include <deque>
#include <gtest/gtest.h>
#include <queue>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr uint32_t runs_per_kind = 1500; // of four kinds
constexpr uint32_t longest_run = 3600U * 1000;

struct Dice {
    std::mt19937 engine;

    uint32_t below(uint32_t limit) {
        return static_cast<uint32_t>(engine()) % limit;
    }
    uint32_t between(uint32_t low, uint32_t high) {
        return low + below(high - low + 1);
    }
    bool percent(uint32_t chance) {
        return below(100) < chance;
    }
};

struct Datagram {
    uint64_t arrival;
    uint64_t order; // of sending; decides between equal arrival times
    int to;
    std::string bytes;
};

struct Later {
    bool operator()(const Datagram &a, const Datagram &b) const {
        return a.arrival != b.arrival ? a.arrival > b.arrival : a.order > b.order;
    }
};

struct Network {
    Dice dice;
    uint32_t loss = 0;   // percent
    uint32_t repeat = 0; // percent
    uint32_t delay = 0;  // ms
    uint32_t jitter = 0; // maximum additional ms: datagrams overtake each other
    uint64_t now = 0;
    uint64_t sent = 0;
    std::priority_queue<Datagram, std::vector<Datagram>, Later> travelling = {};

    void carry(int to, const char *bytes, size_t size) {
        for (int copies = dice.percent(repeat) ? 2 : 1; copies > 0; --copies) {
            if (!dice.percent(loss)) {
                travelling.push({now + delay + dice.below(jitter + 1), sent, to, {bytes, size}});
                ++sent;
            }
        }
    }
};

struct End {
    ikcpcb *kcp = nullptr;
    Network *network = nullptr;
    int index = 0;
    std::string to_send; // all bytes
    size_t accepted = 0; // of them
    uint32_t largest = 0;
    uint32_t stall = 0; // percent of the turns in which nothing is read
    std::deque<size_t> sizes;
    std::string got;
};

struct Kind {
    bool stream;
    bool near_wrap;
};

// The initial sequence number and time: near one of the points at which they wrap.
uint32_t start_of(Dice &dice, bool near_wrap) {
    if (!near_wrap) {
        return 0;
    }
    return (dice.percent(70) ? 0U : 0x80000000U) - dice.below(60);
}

void set_up(End &end, End &peer, Dice &dice, const Kind &kind) {
    ikcpcb *kcp = end.kcp;
    constexpr int mtus[] = {50, 51, 80, 200, 576, 1400};
    ASSERT_EQ(0, ikcp_setmtu(kcp, mtus[dice.below(6)]));
    ikcp_nodelay(kcp, static_cast<int>(dice.below(3)), static_cast<int>(dice.between(10, 100)),
                 static_cast<int>(dice.below(4)), static_cast<int>(dice.below(2)));
    kcp->stream = kind.stream ? 1 : 0;
    kcp->snd_wnd = dice.between(1, 64);
    kcp->rcv_wnd = dice.between(4, 64);
    kcp->snd_una = start_of(dice, kind.near_wrap);
    kcp->snd_nxt = kcp->snd_una;
    peer.kcp->rcv_nxt = kcp->snd_nxt;
    end.stall = dice.percent(30) ? dice.between(50, 98) : 0;
    end.to_send.resize(dice.below(40 * kcp->mss) + 1);
    for (char &byte : end.to_send) {
        byte = static_cast<char>(dice.below(256));
    }
}

void send_some(End &end, Dice &dice) {
    while (end.accepted < end.to_send.size() && end.kcp->nsnd_que < 20 && dice.percent(80)) {
        const size_t size =
            std::min<size_t>(dice.between(1, end.largest), end.to_send.size() - end.accepted);
        ASSERT_EQ(0, ikcp_send(end.kcp, end.to_send.data() + end.accepted, static_cast<int>(size)));
        end.accepted += size;
        end.sizes.push_back(size);
    }
}

void receive_some(End &end, End &peer, Dice &dice) {
    static char room[100000];
    while (!dice.percent(end.stall)) {
        const int expected = ikcp_peeksize(end.kcp);
        const int size = ikcp_recv(end.kcp, room, sizeof room);
        if (size < 0) {
            ASSERT_EQ(-1, expected);
            return;
        }
        ASSERT_EQ(expected, size);
        if (end.kcp->stream == 0) {
            ASSERT_FALSE(peer.sizes.empty());
            ASSERT_EQ(peer.sizes.front(), static_cast<size_t>(size));
            peer.sizes.pop_front();
        }
        end.got.append(room, static_cast<size_t>(size));
    }
}

bool finished(const End &end, const End &peer) {
    return end.accepted == end.to_send.size() && end.kcp->nsnd_que == 0 && end.kcp->nsnd_buf == 0 &&
           peer.got.size() == end.to_send.size();
}

void run(uint32_t seed, const Kind &kind) {
    Dice dice{std::mt19937(seed)};
    Network network{.dice = Dice{std::mt19937(~seed)}};
    network.loss = dice.percent(80) ? dice.below(35) : 0;
    network.repeat = dice.percent(50) ? dice.below(40) : 0;
    network.delay = dice.below(80);
    network.jitter = dice.percent(70) ? dice.below(120) : 0;
    const uint32_t clock_start = start_of(dice, kind.near_wrap) - dice.below(3000);

    End ends[2];
    for (int i = 0; i < 2; ++i) {
        ends[i].network = &network;
        ends[i].index = i;
        ends[i].kcp = ikcp_create(seed, &ends[i]);
        ends[i].kcp->output = [](const char *buf, int len, ikcpcb *kcp, void *user) {
            End *from = static_cast<End *>(user);
            EXPECT_GE(len, 24);
            EXPECT_LE(static_cast<uint32_t>(len), kcp->mtu);
            from->network->carry(1 - from->index, buf, static_cast<size_t>(len));
            return 0;
        };
    }
    set_up(ends[0], ends[1], dice, kind);
    set_up(ends[1], ends[0], dice, kind);
    for (int i = 0; i < 2; ++i) {
        // No message may need more fragments than fit in either window.
        const uint32_t fragments = std::min(ends[0].kcp->rcv_wnd, ends[1].kcp->rcv_wnd);
        ends[i].largest = dice.between(1, fragments * ends[i].kcp->mss);
    }

    bool done = false;
    while (!done && network.now < longest_run && !testing::Test::HasFailure()) {
        const uint32_t clock = clock_start + static_cast<uint32_t>(network.now);
        while (!network.travelling.empty() && network.travelling.top().arrival <= network.now) {
            const Datagram datagram = network.travelling.top();
            network.travelling.pop();
            End &to = ends[datagram.to];
            ASSERT_EQ(0, ikcp_input(to.kcp, datagram.bytes.data(),
                                    static_cast<long>(datagram.bytes.size())));
            ASSERT_LE(to.kcp->nrcv_que, to.kcp->rcv_wnd);
            ASSERT_LE(to.kcp->nrcv_buf, to.kcp->rcv_wnd);
        }
        uint64_t next = network.now + 10000;
        for (int i = 0; i < 2; ++i) {
            send_some(ends[i], dice);
            receive_some(ends[i], ends[1 - i], dice);
            ikcp_update(ends[i].kcp, clock);
            const uint32_t wait = ikcp_check(ends[i].kcp, clock) - clock;
            ASSERT_LE(wait, ends[i].kcp->interval);
            next = std::min<uint64_t>(next, network.now + wait);
        }
        if (!network.travelling.empty()) {
            next = std::min(next, network.travelling.top().arrival);
        }
        done = finished(ends[0], ends[1]) && finished(ends[1], ends[0]);
        network.now = std::max(next, network.now + 1);
    }
    EXPECT_TRUE(done) << "after " << network.now << " ms";
    EXPECT_TRUE(ends[0].got == ends[1].to_send);
    EXPECT_TRUE(ends[1].got == ends[0].to_send);
    ikcp_release(ends[0].kcp);
    ikcp_release(ends[1].kcp);
}

void run_all(const Kind &kind) {
    for (uint32_t seed = 1; seed <= runs_per_kind; ++seed) {
        SCOPED_TRACE(seed);
        run(seed, kind);
        if (testing::Test::HasFailure()) {
            return;
        }
    }
}

} // namespace

TEST(IkcpTransfer, MessagesArriveWholeAndInOrder) {
    run_all({.stream = false, .near_wrap = false});
}

TEST(IkcpTransfer, MessagesArriveAcrossTheWrap) {
    run_all({.stream = false, .near_wrap = true});
}

TEST(IkcpTransfer, BytesArriveInOrder) {
    run_all({.stream = true, .near_wrap = false});
}

TEST(IkcpTransfer, BytesArriveAcrossTheWrap) {
    run_all({.stream = true, .near_wrap = true});
}
