// The server, a client of it, and the relay before both.
#include "net/tcp_server.h"

#include "base/clock.h"
#include "base/ipv4.h"
#include "base/text.h"
#include "net/relay.h"
#include "thread_watch.h"

#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
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
            return; // the tests are repeated; a server is started once
        }
        ASSERT_EQ(init_tcp_server(0), 0);
        ASSERT_TRUE(wait_for([] { return thread_named("tcp-accept") != 0; }));
        server_thread = thread_named("tcp-accept");
        server_port = ntohs(name_of(listener(), getsockname).sin_port);
    }

    TcpServer() : client_(socket(AF_INET, SOCK_STREAM, 0)) {}
    ~TcpServer() override {
        close(client_);
        // The server's last words must not fall into the next test.
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
    tcp_send_block(bytes("block"), 5);
    EXPECT_EQ(receive(), "block");
}

TEST_F(TcpServer, KeepsItsClientWhenSignalsInterrupt) {
    connect_client();
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(interrupt(server_thread));
    }
    // The thread sleeps again: it has seen the last one.
    ASSERT_TRUE(wait_for([] { return is_asleep(server_thread); }));
    EXPECT_TRUE(tcp_client_connected());
    tcp_send_block(bytes("block"), 5);
    EXPECT_EQ(receive(), "block");
}

static void *end_at_once(void * /*unused*/) {
    return nullptr;
}

// A viewer of the same video over UDP.
class Viewer {
public:
    Viewer() : socket_(socket(AF_INET, SOCK_DGRAM, 0)) {
        const sockaddr_in any = socket_address(ipv4_port("127.0.0.1", 0));
        EXPECT_EQ(bind(socket_, reinterpret_cast<const sockaddr *>(&any), sizeof any), 0);
        place_ = from_socket_address(name_of(socket_, getsockname));
        register_client(relay_clients(), place_, false, now_ms());
    }
    ~Viewer() {
        remove_client(relay_clients(), place_);
        close(socket_);
    }
    Viewer(const Viewer &) = delete;
    Viewer &operator=(const Viewer &) = delete;

    // The number of the last block that has come up to now.
    uint32_t last_block() {
        uint8_t packet[relay_header_size + relay_video_block_size];
        while (recv(socket_, packet, sizeof packet, MSG_DONTWAIT) > 0) {
            last_ = get_u32(packet + relay_header_size);
        }
        return last_;
    }

private:
    int socket_;
    Ipv4Port place_ = 0;
    uint32_t last_ = 0;
};

// Relays numbered blocks as long as there is a TCP client.
struct Video {
    void run() {
        uint8_t block[relay_video_block_size] = {};
        thread = gettid();
        while (tcp_client_connected()) {
            put_u32(block, ++current);
            const uint32_t start = now_ms();
            relay_video(block, sizeof block, relay_video_block_size);
            last_took_ms = now_ms() - start;
        }
    }
    std::atomic<int> thread{0};
    std::atomic<uint32_t> current{0}; // the number of the block that is under way
    std::atomic<uint32_t> last_took_ms{0};
};

static UdpEndpoint relay_socket;

TEST_F(TcpServer, AStalledClientIsServedBeforeAllOthersAndLetGoWhenItStopsSending) {
    ASSERT_EQ(udp_endpoint_open(relay_socket, 0, end_at_once), 0);
    relay_open(relay_socket);
    const int small = 4096;
    setsockopt(client_, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    connect_client();
    Viewer viewer;
    Video video;
    std::thread relaying([&] { video.run(); });
    // The connection is full when a block is still under way, and asleep, a while later.
    uint32_t held = 0;
    EXPECT_TRUE(wait_for([&] {
        viewer.last_block();
        held = video.current;
        poll(nullptr, 0, 20);
        return is_asleep(video.thread) && video.current == held;
    }));
    EXPECT_LT(viewer.last_block(), held) << "came before the TCP client had it";
    shutdown(client_, SHUT_WR);
    relaying.join();
    EXPECT_LT(video.last_took_ms, 1900U) << "the wait was not ended";
    EXPECT_TRUE(wait_for([&] { return viewer.last_block() == video.current; }));
}
