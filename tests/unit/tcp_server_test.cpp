// The server with a client.
#include "net/tcp_server.h"

#include "base/bytes.h"
#include "base/clock.h"
#include "base/ipv4.h"
#include "net/tcp_stream.h"
#include "thread_watch.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

constexpr int descriptors = 256; // more than a test has

static sockaddr_in name_of(int socket, int (*get_name)(int, sockaddr *, socklen_t *)) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    get_name(socket, reinterpret_cast<sockaddr *>(&address), &length);
    return address;
}

static int listener() {
    for (int fd = 3; fd < descriptors; ++fd) {
        int listens = 0;
        socklen_t length = sizeof listens;
        if (getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listens, &length) == 0 && listens != 0) {
            return fd;
        }
    }
    return -1;
}

static const uint8_t *bytes(const std::string &text) {
    return reinterpret_cast<const uint8_t *>(text.data());
}

class TcpServer : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (server_thread != 0) {
            return; // tests may be repeated, but a server is started only once
        }
        ASSERT_EQ(init_tcp_server(0), 0);
        ASSERT_TRUE(wait_for([] { return thread_named("tcp-accept") != 0; }));
        server_thread = thread_named("tcp-accept");
        server_port = ntohs(name_of(listener(), getsockname).sin_port);
    }

    TcpServer() : client_(socket(AF_INET, SOCK_STREAM, 0)) {}
    ~TcpServer() override {
        close(client_);
        // The server's last line must not appear in the next test.
        wait_for([&] { return accepted_ < 0 || name_of(accepted_, getpeername).sin_port == 0; });
        wait_for([] { return is_asleep(server_thread); });
    }

    void connect_client() {
        const sockaddr_in address = socket_address(ipv4_port("127.0.0.1", server_port));
        ASSERT_EQ(connect(client_, reinterpret_cast<const sockaddr *>(&address), sizeof address),
                  0);
        ASSERT_TRUE(wait_for(tcp_client_connected));
        const sockaddr_in own = name_of(client_, getsockname);
        for (int fd = 3; fd < descriptors; ++fd) {
            if (name_of(fd, getpeername).sin_port == own.sin_port) {
                accepted_ = fd;
            }
        }
        ASSERT_GE(accepted_, 0);
    }

    // What the client receives next.
    std::string receive() const {
        pollfd wanted{client_, POLLIN, 0};
        char text[100];
        const ssize_t length =
            poll(&wanted, 1, 20000) == 1 ? recv(client_, text, sizeof text, 0) : 0;
        return {text, static_cast<size_t>(std::max<ssize_t>(length, 0))};
    }

    static int server_thread;
    static uint16_t server_port;
    int client_;
    int accepted_ = -1; // the server's end
};

int TcpServer::server_thread;
uint16_t TcpServer::server_port;

TEST_F(TcpServer, AcceptsWhenSignalsInterrupt) {
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(interrupt(server_thread));
    }
    connect_client();
    tcp_send_frame(bytes("block"), 5);
    EXPECT_EQ(receive(), "block");
}

TEST_F(TcpServer, KeepsItsClientWhenSignalsInterrupt) {
    connect_client();
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(interrupt(server_thread));
    }
    // The thread sleeps again, so it has seen the last one.
    ASSERT_TRUE(wait_for([] { return is_asleep(server_thread); }));
    EXPECT_TRUE(tcp_client_connected());
    tcp_send_frame(bytes("block"), 5);
    EXPECT_EQ(receive(), "block");
}

// A stalled client costs the thread that queues frames nothing.
TEST_F(TcpServer, AStalledClientHoldsNobodyUpAndIsLetGoWhenItStopsSending) {
    const int small = 4096;
    setsockopt(client_, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    connect_client();
    const int sender = thread_named("tcp-send");
    const std::string frame(100000, 'x');
    uint32_t slowest_ms = 0;
    // The connection and the queue are full when the sender sleeps with frames left to send.
    for (int i = 0; i < 200; ++i) {
        const uint32_t start = now_ms();
        tcp_send_frame(bytes(frame), frame.size());
        slowest_ms = std::max(slowest_ms, now_ms() - start);
    }
    EXPECT_LT(slowest_ms, 1500U);
    EXPECT_TRUE(wait_for([&] { return is_asleep(sender); }));
    const uint32_t start = now_ms();
    shutdown(client_, SHUT_WR);
    EXPECT_TRUE(wait_for([] { return !tcp_client_connected(); }));
    EXPECT_LT(now_ms() - start, 1900U) << "the wait was not ended";
}

TEST(TcpStream, AClientThatDoesNotAnswerHasVanished) {
    EXPECT_FALSE(tcp_client_vanished(0, 0, 0));
    EXPECT_FALSE(tcp_client_vanished(0, 0, 1000000)) << "nothing to answer";
    EXPECT_FALSE(tcp_client_vanished(0, 1, 60000)) << "its answer may be on the way";
    EXPECT_FALSE(tcp_client_vanished(5, 0, 19999));
    EXPECT_TRUE(tcp_client_vanished(5, 0, 20000));
    EXPECT_TRUE(tcp_client_vanished(0, 2, 20000));
}
