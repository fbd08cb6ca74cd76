// A client's link over the loopback: what it sends, what it reads, how a wait ends.
#include "client/link.h"
#include "client/wait.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

// A UDP socket in place of the daemon, on a port chosen by the system.
class LinkTest : public ::testing::Test {
protected:
    int daemon_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    uint16_t port_ = 0;
    Link link_;
    PacketView packet_{};

    void SetUp() override {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        ASSERT_EQ(bind(daemon_, reinterpret_cast<sockaddr *>(&address), size), 0);
        ASSERT_EQ(getsockname(daemon_, reinterpret_cast<sockaddr *>(&address), &size), 0);
        port_ = ntohs(address.sin_port);
        ASSERT_EQ(open_link(link_, "127.0.0.1", port_).result, Opened::opened);
    }
    void TearDown() override {
        close_daemon();
    }
    void close_daemon() {
        if (daemon_ >= 0) {
            close(daemon_);
        }
        daemon_ = -1;
    }
    // The payload of the next datagram that the daemon has received; "" when there is none.
    std::string received() {
        char buffer[100];
        const ssize_t length = recvfrom(daemon_, buffer, sizeof buffer, MSG_DONTWAIT,
                                        reinterpret_cast<sockaddr *>(&client_), &client_size_);
        return length < 12 ? "" : std::string(buffer + 12, static_cast<size_t>(length) - 12);
    }
    // Sends a datagram to the client that sent last. On the loopback it arrives at once.
    void answer(const std::string &datagram) {
        ASSERT_EQ(sendto(daemon_, datagram.data(), datagram.size(), 0,
                         reinterpret_cast<sockaddr *>(&client_), client_size_),
                  static_cast<ssize_t>(datagram.size()));
    }
    ReadResult read() {
        return read_packet(link_, packet_, Clock::now());
    }
    // Makes the daemon know the client.
    void introduce() {
        send_payload(link_, "hello");
        ASSERT_EQ(received(), "hello");
    }

private:
    sockaddr_in client_{};
    socklen_t client_size_ = sizeof client_;
};

static std::string info_datagram() {
    std::string payload("\1\0\0\0My board", 12);
    payload.resize(44, ' ');
    return std::string("R\0\x2C\0\1\0\0\0\1\0\0\0", 12) + payload;
}

TEST_F(LinkTest, SendsPayloadsBehindAHeader) {
    EXPECT_EQ(link_.name, "127.0.0.1:" + std::to_string(port_));
    EXPECT_TRUE(send_payload(link_, "x"));
    EXPECT_EQ(received(), "x");
    EXPECT_FALSE(send_payload(link_, std::string(largest_client_payload + 1, 'x')));
    EXPECT_EQ(received(), "");
}

TEST_F(LinkTest, RegistersWhenThatIsDueAndLeavesWhenItIsClosed) {
    const TimePoint now = Clock::now();
    EXPECT_EQ(step_link(link_, now), TimePoint::max());
    register_for(link_.registration, Streams::data_only, now);
    EXPECT_EQ(step_link(link_, now), now + from_seconds(2));
    EXPECT_EQ(received(), "\2\1");
    EXPECT_EQ(step_link(link_, now + from_seconds(1)), now + from_seconds(2));
    EXPECT_EQ(received(), "");
    close_link(link_);
    EXPECT_EQ(received(), "\3");
    EXPECT_EQ(link_.socket, -1);
}

TEST_F(LinkTest, CanBeOpenedAgain) {
    register_for(link_.registration, Streams::everything, Clock::now());
    step_link(link_, Clock::now());
    EXPECT_EQ(received(), std::string("\2\0", 2));
    ASSERT_EQ(open_link(link_, "127.0.0.1", port_).result, Opened::opened);
    EXPECT_EQ(received(), "\3");
    EXPECT_EQ(step_link(link_, Clock::now()), TimePoint::max());
    introduce();
}

TEST_F(LinkTest, ReadsWhatHasCome) {
    introduce();
    EXPECT_EQ(read(), ReadResult::nothing);
    answer("no packet");
    answer(info_datagram());
    EXPECT_EQ(read(), ReadResult::other);
    EXPECT_EQ(read(), ReadResult::packet);
    EXPECT_EQ(packet_kind(packet_), PacketKind::info);
    EXPECT_EQ(read(), ReadResult::nothing);
}

TEST_F(LinkTest, KnowsHowManyDatagramsTheSystemDropped) {
    introduce();
    const int yes = 1;
    if (setsockopt(link_.socket, SOL_SOCKET, SO_RXQ_OVFL, &yes, sizeof yes) != 0) {
        GTEST_SKIP() << "this system does not count them (qemu-user)";
    }
    const int smallest = 1;
    setsockopt(link_.socket, SOL_SOCKET, SO_RCVBUFFORCE, &smallest, sizeof smallest);
    setsockopt(link_.socket, SOL_SOCKET, SO_RCVBUF, &smallest, sizeof smallest);
    constexpr uint32_t sent = 100;
    for (uint32_t i = 0; i < sent; ++i) {
        answer(info_datagram());
    }
    uint32_t kept = 0;
    while (read() == ReadResult::packet) {
        ++kept;
    }
    EXPECT_EQ(link_.dropped, 0U); // before those
    answer(info_datagram());
    EXPECT_EQ(read(), ReadResult::packet);
    EXPECT_EQ(link_.dropped, sent - kept);
    EXPECT_GT(link_.dropped, 0U);
}

TEST_F(LinkTest, HearsOfARefusalAndRegistersSooner) {
    const TimePoint now = Clock::now();
    register_for(link_.registration, Streams::everything, now);
    close_daemon();
    step_link(link_, now);
    EXPECT_EQ(read_packet(link_, packet_, now), ReadResult::refused);
    EXPECT_EQ(next_registration(link_.registration), now + from_seconds(0.5));
    EXPECT_EQ(read(), ReadResult::nothing);
}

TEST(Link, TellsWhyItCannotBeOpened) {
    Link link;
    const OpenOutcome unknown = open_link(link, "no.such.host.invalid", 5252);
    EXPECT_EQ(unknown.result, Opened::host_unknown);
    EXPECT_NE(unknown.reason, "");
    const OpenOutcome unreachable = open_link(link, "255.255.255.255", 5252);
    EXPECT_EQ(unreachable.result, Opened::unreachable);
    EXPECT_NE(unreachable.reason, "");
    EXPECT_EQ(link.socket, -1);
}

TEST_F(LinkTest, AskWaitsForTheAnswer) {
    introduce();
    answer("no packet");
    answer(info_datagram());
    BoardInfo info{};
    EXPECT_EQ(ask(link_, info_request(60, 2, info)), Outcome::answered);
    EXPECT_EQ(info.name, "My board");
    EXPECT_EQ(received(), std::string(1, '\0'));
}

TEST_F(LinkTest, AskGivesUpAndTellsWhy) {
    BoardInfo info{};
    EXPECT_EQ(ask(link_, info_request(0.02, 2, info)), Outcome::silent);
    received();
    received();
    EXPECT_EQ(received(), "");
    link_.wait.is_stopped = [] { return true; };
    EXPECT_EQ(ask(link_, info_request(60, 1, info)), Outcome::stopped);
    link_.wait.is_stopped = nullptr;
    close_daemon();
    EXPECT_EQ(ask(link_, info_request(60, 1, info)), Outcome::refused);
}

// A stream of other packets does not prolong the wait.
TEST_F(LinkTest, AskGivesUpInTimeWhateverComes) {
    introduce();
    const Request never = make_request("x", 0.05, 1, [this](const PacketView &) {
        answer(info_datagram());
        return false;
    });
    answer(info_datagram());
    EXPECT_EQ(ask(link_, never), Outcome::silent);
}

TEST_F(LinkTest, WaitingEndsWhenTheOutputsReaderLeaves) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    link_.wait.output = ends[1];
    close(ends[0]);
    EXPECT_EQ(receive(link_, packet_, after(60)), Received::output_gone);
    close(ends[1]);
}
