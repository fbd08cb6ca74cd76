#include "net/udp_endpoint.h"

#include "base/clock.h"
#include "thread_watch.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <gtest/gtest.h>
#include <mutex>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

using Events = std::vector<std::string>;

// Endpoints live as long as the process, so every test makes a new one.
struct Made {
    UdpEndpoint endpoint;
    uint8_t buffer[1000];
};
static std::deque<Made> &all_made = *new std::deque<Made>;
static std::atomic<UdpEndpoint *> to_run; // the endpoint for the thread that is started next
static std::atomic<int> receive_thread;

static std::mutex events_mutex;
static Events events_seen; // guarded by the mutex

static void note(const std::string &event) {
    const std::lock_guard<std::mutex> lock(events_mutex);
    events_seen.push_back(event);
}

static Events events() {
    const std::lock_guard<std::mutex> lock(events_mutex);
    return events_seen;
}

static std::string place(const char *host, uint16_t port) {
    return std::string(host) + ":" + std::to_string(port);
}

static void on_packet(uint8_t *data, uint16_t length, const char *host, uint16_t port) {
    note("packet " + std::string(reinterpret_cast<char *>(data), length) + " " + place(host, port));
}

static void on_lost() {
    note("lost");
}

static void on_found(const char *host) {
    note(std::string("found ") + host);
}

static void on_found_port(const char *host, uint16_t port) {
    note("found port " + place(host, port));
}

static void *run_receive_thread(void * /*unused*/) {
    UdpEndpoint *endpoint = to_run;
    receive_thread = gettid();
    udp_endpoint_run(*endpoint);
}

class Endpoint : public ::testing::Test {
protected:
    Endpoint()
        : made_(all_made.emplace_back()), its_(made_.endpoint),
          peer_(socket(AF_INET, SOCK_DGRAM, 0)) {
        const std::lock_guard<std::mutex> lock(events_mutex);
        events_seen.clear();
    }
    ~Endpoint() override {
        close(peer_);
    }

    // Opens on a port chosen by the kernel, with all callbacks, and connects the peer to it.
    void open() {
        to_run = &its_;
        receive_thread = 0;
        ASSERT_EQ(udp_endpoint_open(its_, 0, run_receive_thread), 0);
        ASSERT_TRUE(wait_for([] { return receive_thread != 0; }));
        its_.on_packet = on_packet;
        its_.on_lost = on_lost;
        its_.on_found = on_found;
        its_.on_found_port = on_found_port;
        const sockaddr_in address =
            socket_address(ipv4_port("127.0.0.1", static_cast<uint16_t>(its_.local_port)));
        ASSERT_EQ(connect(peer_, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        sockaddr_in own{};
        socklen_t own_length = sizeof own;
        getsockname(peer_, reinterpret_cast<sockaddr *>(&own), &own_length);
        peer_port_ = ntohs(own.sin_port);
    }

    void give_buffer(uint8_t *buffer, uint16_t size) {
        its_.buffer_size = size;
        its_.buffer.store(buffer, std::memory_order_release);
    }

    void open_with_buffer() {
        open();
        give_buffer(made_.buffer, sizeof made_.buffer);
    }

    void send(const std::string &datagram) const {
        EXPECT_EQ(::send(peer_, datagram.data(), datagram.size(), 0),
                  static_cast<ssize_t>(datagram.size()));
    }

    // What the peer receives next.
    std::string receive() const {
        pollfd wanted{peer_, POLLIN, 0};
        char datagram[100];
        if (poll(&wanted, 1, 20000) != 1) {
            return "nothing came";
        }
        const ssize_t length = recv(peer_, datagram, sizeof datagram, 0);
        return {datagram, static_cast<size_t>(std::max<ssize_t>(length, 0))};
    }

    std::string packet(const std::string &datagram) const {
        return "packet " + datagram + " " + place("127.0.0.1", peer_port_);
    }

    Made &made_;
    UdpEndpoint &its_;
    int peer_;
    uint16_t peer_port_ = 0;
};

TEST_F(Endpoint, OpensWithItsCountersAtZero) {
    its_.rx_bytes = 5;
    its_.tx_bytes = 6;
    open();
    EXPECT_EQ(its_.rx_bytes, 0U);
    EXPECT_EQ(its_.tx_bytes, 0U);
    EXPECT_NE(its_.local_port, 0U);
    EXPECT_EQ(its_.timeout_ms, 1000U);
}

TEST_F(Endpoint, DoesNotOpenOnATakenPort) {
    open();
    receive_thread = 0;
    UdpEndpoint &second = all_made.emplace_back().endpoint;
    to_run = &second;
    EXPECT_EQ(udp_endpoint_open(second, static_cast<uint16_t>(its_.local_port), run_receive_thread),
              -1);
    EXPECT_EQ(receive_thread, 0);
    close(second.socket);
}

TEST_F(Endpoint, ReceivesNothingBeforeThereIsABuffer) {
    open();
    send("early");
    EXPECT_TRUE(wait_for([] { return is_asleep(receive_thread); }));
    EXPECT_EQ(its_.rx_bytes, 0U);
    EXPECT_EQ(events(), Events{});
    give_buffer(made_.buffer, sizeof made_.buffer);
    EXPECT_TRUE(wait_for([] { return events().size() == 3; }));
    EXPECT_EQ(events().back(), packet("early"));
}

TEST_F(Endpoint, FindsItsPeerBeforeTheFirstPacketOnly) {
    open_with_buffer();
    send("one");
    send("two");
    EXPECT_TRUE(wait_for([] { return events().size() >= 4; }));
    EXPECT_EQ(events(), (Events{"found 127.0.0.1", "found port " + place("127.0.0.1", peer_port_),
                                packet("one"), packet("two")}));
    EXPECT_EQ(its_.peer, ipv4_port("127.0.0.1", peer_port_));
    EXPECT_NE(its_.last_receive_ms, 0U);
}

TEST_F(Endpoint, CountsWhatItReceives) {
    open_with_buffer();
    send("one");
    send("three");
    EXPECT_TRUE(wait_for([] { return events().size() == 4; }));
    EXPECT_EQ(its_.rx_bytes, 8U);
    EXPECT_EQ(its_.tx_bytes, 0U);
}

TEST_F(Endpoint, CutsADatagramToItsBuffer) {
    open();
    give_buffer(made_.buffer, 5);
    send("12345");
    send("123456");
    EXPECT_TRUE(wait_for([] { return events().size() == 4; }));
    EXPECT_EQ(events()[2], packet("12345"));
    EXPECT_EQ(events()[3], packet("12345"));
}

TEST_F(Endpoint, LosesItsPeerOnceAndFindsItAgain) {
    open_with_buffer();
    udp_endpoint_check_lost(its_);
    EXPECT_EQ(events(), Events{}) << "nobody was there";
    send("one");
    EXPECT_TRUE(wait_for([] { return events().size() == 3; }));
    its_.last_receive_ms = now_ms() - 1001;
    udp_endpoint_check_lost(its_);
    udp_endpoint_check_lost(its_);
    EXPECT_EQ(events().size(), 4U);
    EXPECT_EQ(events().back(), "lost");
    EXPECT_EQ(its_.last_receive_ms, 0U);
    EXPECT_EQ(its_.peer, 0U);
    EXPECT_EQ(udp_endpoint_reply(its_, "x", 1), -1);
    send("two");
    EXPECT_TRUE(wait_for([] { return events().size() == 7; }));
    EXPECT_EQ(events()[4], "found 127.0.0.1");
    EXPECT_EQ(events()[6], packet("two"));
}

TEST_F(Endpoint, KeepsAPeerWithinTheTimeout) {
    open_with_buffer();
    its_.timeout_ms = 100000;
    send("one");
    EXPECT_TRUE(wait_for([] { return events().size() == 3; }));
    const uint32_t then = now_ms() - 50000;
    its_.last_receive_ms = then;
    udp_endpoint_check_lost(its_);
    EXPECT_EQ(events().size(), 3U);
    EXPECT_EQ(its_.last_receive_ms, then);
    EXPECT_EQ(its_.peer, ipv4_port("127.0.0.1", peer_port_));
}

TEST_F(Endpoint, RemembersALostPeerThatNobodyIsToldOf) {
    open();
    its_.on_lost = nullptr;
    give_buffer(made_.buffer, sizeof made_.buffer);
    send("one");
    EXPECT_TRUE(wait_for([] { return events().size() == 3; }));
    its_.last_receive_ms = now_ms() - 1001;
    udp_endpoint_check_lost(its_);
    EXPECT_EQ(its_.last_receive_ms, 0U);
    EXPECT_EQ(udp_endpoint_reply(its_, "still here", 10), 10);
    EXPECT_EQ(receive(), "still here");
}

TEST_F(Endpoint, RepliesToNobodyBeforeTheFirstDatagram) {
    open_with_buffer();
    errno = 0;
    EXPECT_EQ(udp_endpoint_reply(its_, "x", 1), -1);
    EXPECT_EQ(errno, 0) << "it was tried";
}

TEST_F(Endpoint, CountsWhatItSendsButNotReplies) {
    open_with_buffer();
    send("one");
    EXPECT_TRUE(wait_for([] { return events().size() == 3; }));
    EXPECT_EQ(udp_endpoint_reply(its_, "reply", 5), 5);
    EXPECT_EQ(receive(), "reply");
    EXPECT_EQ(its_.tx_bytes, 0U);
    EXPECT_EQ(udp_endpoint_send_to(its_, "by text", 7, "127.0.0.1", peer_port_), 7);
    EXPECT_EQ(receive(), "by text");
    EXPECT_EQ(its_.tx_bytes, 7U);
    const sockaddr_in address = socket_address(ipv4_port("127.0.0.1", peer_port_));
    EXPECT_EQ(udp_endpoint_send(its_, "by number", 9, address), 9);
    EXPECT_EQ(receive(), "by number");
    EXPECT_EQ(its_.tx_bytes, 16U);
    EXPECT_EQ(udp_endpoint_send_to(its_, "lost", 4, "no address", peer_port_), -1);
    EXPECT_EQ(its_.tx_bytes, 20U);
}

// Notes a datagram with the rest of what its buffer holds. This is the receive thread: nobody else
// may look there, as the next datagram can come at any time.
static void on_whole_buffer(uint8_t *data, uint16_t /*length*/, const char * /*host*/,
                            uint16_t /*port*/) {
    note(std::string(data, data + sizeof Made::buffer));
}

TEST_F(Endpoint, PutsZerosBehindADatagramAndNoneBehindItsBuffer) {
    open();
    memset(made_.buffer, 'x', sizeof made_.buffer);
    its_.clear_before_read = true;
    its_.on_packet = on_whole_buffer;
    give_buffer(made_.buffer, 200);
    send("123");
    EXPECT_TRUE(wait_for([] { return events().size() == 3; }));
    EXPECT_EQ(events().back().substr(0, 3 + udp_cleared_size + 1),
              "123" + std::string(udp_cleared_size, '\0') + "x");
    send(std::string(190, 'y'));
    EXPECT_TRUE(wait_for([] { return events().size() == 4; }));
    EXPECT_EQ(events().back().substr(0, 201), std::string(190, 'y') + std::string(10, '\0') + "x");
}

TEST_F(Endpoint, LeavesWhatIsBehindADatagramIfItMay) {
    open();
    memset(made_.buffer, 'x', sizeof made_.buffer);
    its_.on_packet = on_whole_buffer;
    give_buffer(made_.buffer, 200);
    send("123");
    EXPECT_TRUE(wait_for([] { return events().size() == 3; }));
    EXPECT_EQ(events().back().substr(0, 5), "123xx");
}

TEST_F(Endpoint, ReceivesOnWhenASignalInterrupts) {
    open_with_buffer();
    for (size_t i = 0; i < 10; ++i) {
        ASSERT_TRUE(interrupt(receive_thread));
        send("after the signal");
        ASSERT_TRUE(wait_for([&] { return events().size() == 3 + i; }));
    }
    EXPECT_EQ(events().back(), packet("after the signal"));
}
