// The file server switched on, and a peer of the same transport on a socket of its own.
#include "transfer/kcp_server.h"

#include "base/ipv4.h"
#include "base/text.h"
#include "transfer/transfer_lock.h"

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
        ASSERT_EQ(init_kcp_server(0, keep), 0);
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

    // Junk is survived: too short, another conversation, an unknown command.
    for (const std::string &junk : {std::string("x"), std::string(24, '\0'),
                                    std::string("\1\x55\0\0\xFF", 5) + std::string(19, '\0')}) {
        send(socket_, junk.data(), junk.size(), 0);
    }
    const size_t before = received_.size();
    ASSERT_EQ(kcp_server_send("end", 3), 0);
    ASSERT_TRUE(turn_until([&] { return received_.size() >= before + 3; }));
    EXPECT_EQ(received_.substr(before), "end");
}

// The peer acknowledges nothing, so all that comes is the first flight. Its size shows the windows
// without congestion control, its headers stream mode, and its datagrams the mtu.
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
            continue; // a repetition of what another peer left unacknowledged
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
