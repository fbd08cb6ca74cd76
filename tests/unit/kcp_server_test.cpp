// The running file server, and a peer with the same transport and its own socket.
#include "transfer/kcp_server.h"

#include "base/bytes.h"
#include "base/ipv4.h"
#include "transfer/transfer_lock.h"

#include <algorithm>
#include <ctime>
#include <gtest/gtest.h>
#include <ikcp.h>
#include <map>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

// What the server received; written under the transfer lock.
static std::string received_by_server;

static void keep(const char *data, int length) {
    received_by_server.append(data, static_cast<size_t>(length));
}

static uint32_t milliseconds() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<uint32_t>(time.tv_sec * 1000 + time.tv_nsec / 1000000);
}

static int send_to_server(const char *data, int length, ikcpcb * /*kcp*/, void *user) {
    return static_cast<int>(send(*static_cast<int *>(user), data, static_cast<size_t>(length), 0));
}

// The peer: its socket, its block and what it received.
class KcpServer : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        try_an_occupied_port();
        ASSERT_EQ(init_kcp_server(0, keep), 0);
    }

    // First without the server: there is only one per process.
    static void try_an_occupied_port() {
        const int occupier = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in address = socket_address(ipv4_port("0.0.0.0", 0));
        socklen_t length = sizeof address;
        bind(occupier, reinterpret_cast<const sockaddr *>(&address), length);
        getsockname(occupier, reinterpret_cast<sockaddr *>(&address), &length);
        start_at_occupied_port_ = init_kcp_server(ntohs(address.sin_port), keep);
        send_without_server_ = kcp_server_send("x", 1);
        close(occupier);
    }

    KcpServer() {
        const sockaddr_in server = socket_address(ipv4_port("127.0.0.1", kcp_server_port()));
        socket_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        connect(socket_, reinterpret_cast<const sockaddr *>(&server), sizeof server);
        peer_ = ikcp_create(kcp_server_conv, &socket_);
        peer_->output = send_to_server;
        peer_->stream = 1;
        ikcp_nodelay(peer_, 1, 10, 2, 1);
    }
    ~KcpServer() override {
        ikcp_flush(peer_); // acknowledges the last, or the server would repeat it to the next peer
        ikcp_release(peer_);
        close(socket_);
    }

    // One round of the peer's own loop.
    void turn() {
        ikcp_update(peer_, milliseconds());
        pollfd wanted{socket_, POLLIN, 0};
        if (poll(&wanted, 1, 5) == 1) {
            char datagram[65536];
            const ssize_t length = recv(socket_, datagram, sizeof datagram, 0);
            ++datagrams_;
            longest_ = std::max(longest_, length);
            first_bytes_.assign(datagram, datagram + 4);
            ikcp_input(peer_, datagram, length);
        }
        std::vector<char> data(65536);
        int length = 0;
        while ((length = ikcp_recv(peer_, data.data(), static_cast<int>(data.size()))) >= 0) {
            received_.append(data.data(), static_cast<size_t>(length));
        }
    }

    static std::string server_received() {
        lock_transfer();
        std::string copy = received_by_server;
        unlock_transfer();
        return copy;
    }

    template <typename Condition>
    bool turn_until(Condition condition) {
        const uint32_t start = milliseconds();
        while (!condition()) {
            if (milliseconds() - start > 10000) {
                return false;
            }
            turn();
        }
        return true;
    }

    static inline int start_at_occupied_port_;
    static inline int send_without_server_;
    int socket_ = -1;
    ikcpcb *peer_ = nullptr;
    std::string received_;
    std::vector<char> first_bytes_;
    int datagrams_ = 0;
    ssize_t longest_ = 0;
};

TEST_F(KcpServer, CarriesBytesBothWays) {
    std::string sent;
    for (int i = 0; i < 40000; ++i) {
        sent += static_cast<char>(i * 7 + i / 256);
    }
    ASSERT_EQ(ikcp_send(peer_, sent.data(), static_cast<int>(sent.size())), 0);
    ASSERT_TRUE(turn_until([&] { return server_received().size() >= sent.size(); }));
    EXPECT_EQ(server_received(), sent);

    ASSERT_EQ(kcp_server_send(sent.data(), static_cast<int>(sent.size())), 0);
    ASSERT_TRUE(turn_until([&] { return received_.size() >= sent.size(); }));
    EXPECT_EQ(received_, sent);
    EXPECT_LE(longest_, 1400);
    EXPECT_EQ(first_bytes_, (std::vector<char>{1, 0x55, 0, 0})) << "conversation 21761";

    // Junk must not hurt: too short, another conversation, an unknown command.
    for (const std::string &junk : {std::string("x"), std::string(24, '\0'),
                                    std::string("\1\x55\0\0\xFF", 5) + std::string(19, '\0')}) {
        send(socket_, junk.data(), junk.size(), 0);
    }
    const size_t before = received_.size();
    ASSERT_EQ(kcp_server_send("end", 3), 0);
    ASSERT_TRUE(turn_until([&] { return received_.size() >= before + 3; }));
    EXPECT_EQ(received_.substr(before), "end");
}

TEST_F(KcpServer, IsNotThereWhenItsPortIsOccupied) {
    EXPECT_EQ(start_at_occupied_port_, -1);
    EXPECT_EQ(send_without_server_, -1) << "there is nothing to send with";
}

// The peer acknowledges nothing, so only the first flight arrives. Its size shows the windows
// without congestion control, its headers show stream mode, and its datagrams show the mtu.
TEST_F(KcpServer, SendsAWholeWindowOfFullSegmentsAtOnce) {
    constexpr size_t data_per_segment = 1376;
    constexpr size_t segments = 30;
    const std::string greeting = std::string("\1\x55\0\0\x54\0\x80\0", 8) + std::string(16, '\0');
    ASSERT_EQ(send(socket_, greeting.data(), greeting.size(), 0), 24);
    const std::string sent(segments * data_per_segment - 100, 'x');
    // In two pieces that end within a segment.
    ASSERT_EQ(kcp_server_send(sent.data(), 2000), 0);
    ASSERT_EQ(kcp_server_send(sent.data(), static_cast<int>(sent.size() - 2000)), 0);
    std::map<uint32_t, size_t> lengths; // by sn
    pollfd wanted{socket_, POLLIN, 0};
    while (lengths.size() < segments && poll(&wanted, 1, 5000) == 1) {
        uint8_t datagram[65536];
        const ssize_t length = recv(socket_, datagram, sizeof datagram, 0);
        ASSERT_GE(length, 24);
        if (length < 100) {
            continue; // a retransmission of what another peer left unacknowledged
        }
        EXPECT_EQ(datagram[ikcp_offset_cmd], ikcp_cmd_push);
        EXPECT_EQ(datagram[ikcp_offset_frg], 0);
        lengths[get_u32(datagram + ikcp_offset_sn)] = static_cast<size_t>(length);
    }
    ASSERT_EQ(lengths.size(), segments);
    size_t data = 0;
    for (const auto &[sn, length] : lengths) {
        EXPECT_EQ(length, sn == lengths.rbegin()->first ? 1300U : 1400U);
        data += length - ikcp_header_size;
    }
    EXPECT_EQ(data, sent.size());
}

namespace {
// A segment from the server, as on the wire.
struct Push {
    uint32_t sn;
    uint32_t ts; // the server's own time, so that a busy machine does not matter
};
} // namespace

// A peer that builds the wire format by hand.
class KcpServerWire : public KcpServer {
protected:
    // Acknowledges what earlier peers left unacknowledged.
    KcpServerWire() {
        ask(1 << 20);
    }

    static std::string header(uint8_t cmd, uint32_t sn, uint32_t ts, uint32_t una) {
        uint8_t bytes[ikcp_header_size]{};
        put_u32(bytes + ikcp_offset_conv, kcp_server_conv);
        bytes[ikcp_offset_cmd] = cmd;
        put_u16(bytes + ikcp_offset_wnd, 128);
        put_u32(bytes + ikcp_offset_ts, ts);
        put_u32(bytes + ikcp_offset_sn, sn);
        put_u32(bytes + ikcp_offset_una, una);
        return {reinterpret_cast<const char *>(bytes), sizeof bytes};
    }

    // Sends the headers as one datagram, followed by a window probe, and waits for the reply: by
    // then the server has processed them and sent its replies.
    void ask(uint32_t una, const std::string &headers = {}) {
        const std::string datagram = headers + header(ikcp_cmd_ask, 0, 0, una);
        send(socket_, datagram.data(), datagram.size(), 0);
        const int answers = answers_;
        ASSERT_TRUE(receive_until([&] { return answers_ > answers; }));
    }

    Push next_push() {
        EXPECT_TRUE(receive_until([&] { return !pushes_.empty(); }));
        if (pushes_.empty()) {
            return {};
        }
        const Push push = pushes_.front();
        pushes_.erase(pushes_.begin());
        return push;
    }

    Push pushed(const std::string &data) {
        EXPECT_EQ(kcp_server_send(data.data(), static_cast<int>(data.size())), 0);
        return next_push();
    }

    // Makes the server believe that the round-trip time is `rtt` ms or a little more.
    void teach(uint32_t rtt) {
        const Push push = pushed("x");
        std::string acks;
        for (int i = 0; i < 200; ++i) {
            acks += header(ikcp_cmd_ack, push.sn, push.ts - rtt, push.sn + 1);
        }
        ask(push.sn + 1, acks);
    }

    template <typename Condition>
    bool receive_until(Condition condition) {
        pollfd wanted{socket_, POLLIN, 0};
        while (!condition()) {
            if (poll(&wanted, 1, 10000) != 1) {
                return false;
            }
            receive();
        }
        return true;
    }

    void receive() {
        uint8_t datagram[65536];
        const ssize_t length = recv(socket_, datagram, sizeof datagram, 0);
        const uint8_t *end = datagram + std::max<ssize_t>(length, 0);
        for (const uint8_t *at = datagram; end - at >= static_cast<ssize_t>(ikcp_header_size);) {
            const uint8_t cmd = at[ikcp_offset_cmd];
            answers_ += cmd == ikcp_cmd_tell ? 1 : 0;
            if (cmd == ikcp_cmd_push) {
                pushes_.push_back({get_u32(at + ikcp_offset_sn), get_u32(at + ikcp_offset_ts)});
            }
            at += ikcp_header_size + get_u32(at + ikcp_offset_len);
        }
    }

    std::vector<Push> pushes_; // received but not yet requested by the test
    int answers_ = 0;
};

TEST_F(KcpServerWire, RepeatsASegmentThatTwoAcksHaveGoneAround) {
    teach(30000); // a time-out retransmission is half a minute away
    const Push first = pushed(std::string(4UL * 1376, 'x'));
    for (uint32_t i = 1; i < 4; ++i) {
        ASSERT_EQ(next_push().sn, first.sn + i);
    }
    ask(first.sn, header(ikcp_cmd_ack, first.sn + 1, first.ts - 30000, first.sn));
    ask(first.sn);
    ask(first.sn);
    EXPECT_TRUE(pushes_.empty()) << "one ack is not enough";
    ask(first.sn, header(ikcp_cmd_ack, first.sn + 2, first.ts - 30000, first.sn));
    const Push again = next_push();
    EXPECT_EQ(again.sn, first.sn);
    EXPECT_LT(again.ts - first.ts, 30000U);
}

// The first retransmission waits for the round-trip time, an interval of 30 ms, and an eighth of
// their sum.
TEST_F(KcpServerWire, RepeatsASegmentWithoutAnAckNoSoonerThanItMay) {
    teach(208); // the integer smoothing converges to at least 201
    const Push first = pushed("y");
    const Push again = next_push();
    EXPECT_EQ(again.sn, first.sn);
    EXPECT_GE(again.ts - first.ts, 201U + 30 + (201 + 30) / 8);
}

TEST_F(KcpServerWire, SendsEvery30Milliseconds) {
    uint32_t shortest = UINT32_MAX;
    Push last = pushed("z");
    for (int i = 0; i < 200 && shortest > 60; ++i) {
        ask(last.sn + 1);
        const Push next = pushed("z");
        shortest = std::min(shortest, next.ts - last.ts);
        last = next;
    }
    EXPECT_LE(shortest, 60U);
}
