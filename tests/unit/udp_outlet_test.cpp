// The outlet and its sockets on the loopback, where buffers never fill; system tests cover slow
// links.
#include "net/udp_outlet.h"

#include "base/pause.h"
#include "net/send_socket.h"

#include <cstring>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <unistd.h>
#include <vector>

static void *end_at_once(void * /*unused*/) {
    return nullptr;
}

// A receiver with its own port.
class Receiver {
public:
    Receiver() : socket_(socket(AF_INET, SOCK_DGRAM, 0)) {
        sockaddr_in address = socket_address(ipv4_port("127.0.0.1", 0));
        socklen_t length = sizeof address;
        EXPECT_EQ(bind(socket_, reinterpret_cast<const sockaddr *>(&address), length), 0);
        getsockname(socket_, reinterpret_cast<sockaddr *>(&address), &length);
        place_ = from_socket_address(address);
    }
    ~Receiver() {
        close(socket_);
    }
    Receiver(const Receiver &) = delete;
    Receiver &operator=(const Receiver &) = delete;

    Ipv4Port place() const {
        return place_;
    }
    int descriptor() const {
        return socket_;
    }
    // The next datagram, or "" when there is none; `sender` gets its source.
    std::string receive(Ipv4Port *sender = nullptr) const {
        pollfd wanted{socket_, POLLIN, 0};
        char text[100];
        if (poll(&wanted, 1, 0) != 1) {
            return "";
        }
        sockaddr_in address{};
        socklen_t address_length = sizeof address;
        const ssize_t length = recvfrom(socket_, text, sizeof text, 0,
                                        reinterpret_cast<sockaddr *>(&address), &address_length);
        if (sender != nullptr) {
            *sender = from_socket_address(address);
        }
        return {text, static_cast<size_t>(length)};
    }

private:
    int socket_;
    Ipv4Port place_ = 0;
};

class Outlet : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (endpoint.local_port == 0) {
            ASSERT_EQ(udp_endpoint_open(endpoint, 0, end_at_once), 0);
        }
        udp_outlet_open(outlet, endpoint);
    }
    static uint16_t port() {
        return static_cast<uint16_t>(endpoint.local_port);
    }
    static void round(const std::string &text, const std::vector<Ipv4Port> &destinations) {
        RoundReceivers receivers; // NOLINT(cppcoreguidelines-pro-type-member-init)
        prepare_receivers(receivers, destinations.data(), static_cast<int>(destinations.size()));
        receivers.datagram = datagram_of(text.data(), text.size());
        udp_outlet_round(outlet, receivers, monotonic_ns());
    }
    static UdpEndpoint endpoint;
    static UdpOutlet outlet;
};

UdpEndpoint Outlet::endpoint;
UdpOutlet Outlet::outlet;

TEST_F(Outlet, SendsARoundToAll) {
    const Receiver receivers[3];
    const uint32_t before = endpoint.tx_bytes;
    round("to all", {receivers[0].place(), receivers[1].place(), receivers[2].place()});
    for (const Receiver &receiver : receivers) {
        Ipv4Port sender = 0;
        EXPECT_EQ(receiver.receive(&sender), "to all");
        EXPECT_EQ(sender, loopback_address(port()));
        EXPECT_EQ(receiver.receive(), "");
    }
    EXPECT_EQ(endpoint.tx_bytes - before, 18U);
    round("to nobody", {});
    EXPECT_EQ(endpoint.tx_bytes - before, 18U);
}

TEST_F(Outlet, ADestinationThatFailsKeepsNobodyFromGettingIt) {
    const Receiver receivers[3];
    const uint32_t before = endpoint.tx_bytes;
    const Ipv4Port impossible = ipv4_port("127.0.0.1", 0);
    round("one", {impossible, receivers[0].place(), impossible, impossible, receivers[1].place(),
                  receivers[2].place(), impossible});
    for (const Receiver &receiver : receivers) {
        EXPECT_EQ(receiver.receive(), "one");
        EXPECT_EQ(receiver.receive(), "");
    }
    EXPECT_EQ(endpoint.tx_bytes - before, 7U * 3) << "all count, whatever happens";
}

TEST_F(Outlet, TheNextRoundBeginsTwoMicrosecondsForEachDatagramLater) {
    const Receiver receivers[10];
    std::vector<Ipv4Port> destinations;
    for (const Receiver &receiver : receivers) {
        destinations.push_back(receiver.place());
    }
    // With an invalid descriptor, only the waits take time.
    static UdpEndpoint nowhere;
    static UdpOutlet to_nowhere;
    nowhere.socket = -1;
    udp_outlet_open(to_nowhere, nowhere);
    RoundReceivers prepared; // NOLINT(cppcoreguidelines-pro-type-member-init)
    prepare_receivers(prepared, destinations.data(), 10);
    prepared.datagram = datagram_of("x", 1);
    const int64_t start = monotonic_ns();
    for (int i = 0; i <= 100; ++i) {
        udp_outlet_round(to_nowhere, prepared, monotonic_ns());
    }
    EXPECT_GE(monotonic_ns() - start, 100 * 20000);
    const int64_t middle = monotonic_ns();
    for (int i = 0; i <= 1000; ++i) {
        udp_outlet_single(to_nowhere, datagram_of("x", 1), destinations[0]);
    }
    EXPECT_GE(monotonic_ns() - middle, 1000 * 2000);
}

TEST_F(Outlet, SendsBothPartsAndUsesReceiversAgain) {
    const Receiver receivers[2];
    const Ipv4Port destinations[] = {receivers[0].place(), receivers[1].place()};
    RoundReceivers prepared; // NOLINT(cppcoreguidelines-pro-type-member-init)
    prepare_receivers(prepared, destinations, 2);
    for (const char *payload : {"one", "and another"}) {
        prepared.datagram = datagram_of("head ", 5, payload, strlen(payload));
        udp_outlet_round(outlet, prepared, monotonic_ns());
        for (const Receiver &receiver : receivers) {
            EXPECT_EQ(receiver.receive(), "head " + std::string(payload));
        }
    }
}

TEST_F(Outlet, SendsSingleDatagrams) {
    const Receiver receiver;
    const uint32_t before = endpoint.tx_bytes;
    udp_outlet_single(outlet, datagram_of("reply", 5), receiver.place());
    Ipv4Port sender = 0;
    EXPECT_EQ(receiver.receive(&sender), "reply");
    EXPECT_EQ(sender, loopback_address(port()));
    EXPECT_EQ(endpoint.tx_bytes - before, 5U);
}

TEST_F(Outlet, SendsNothingUntilItIsOpened) {
    static UdpOutlet closed;
    const Receiver receiver;
    const Ipv4Port place = receiver.place();
    EXPECT_FALSE(udp_outlet_is_open(closed));
    RoundReceivers receivers; // NOLINT(cppcoreguidelines-pro-type-member-init)
    prepare_receivers(receivers, &place, 1);
    receivers.datagram = datagram_of("x", 1);
    udp_outlet_round(closed, receivers, monotonic_ns());
    udp_outlet_single(closed, datagram_of("x", 1), place);
    EXPECT_EQ(receiver.receive(), "");
}

static void send_through(int socket, const std::string &text, Ipv4Port destination) {
    sockaddr_in address = socket_address(destination);
    iovec content{const_cast<char *>(text.data()), text.size()};
    msghdr message{};
    message.msg_name = &address;
    message.msg_namelen = sizeof address;
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    leave_source_open(message);
    EXPECT_EQ(sendmsg(socket, &message, 0), static_cast<ssize_t>(text.size()));
}

TEST(SendSocket, SendsFromThePortAndLeavesWhatArrivesToTheReceiver) {
    const Receiver receiver;
    static UdpEndpoint owner;
    ASSERT_EQ(udp_endpoint_open(owner, 0, end_at_once), 0);
    const auto port = static_cast<uint16_t>(owner.local_port);
    std::vector<int> sockets;
    for (int i = 0; i < 5; ++i) {
        sockets.push_back(open_send_socket(owner.socket, port, 100000));
        ASSERT_GE(sockets.back(), 0);
        Ipv4Port sender = 0;
        send_through(sockets.back(), "hello", receiver.place());
        EXPECT_EQ(receiver.receive(&sender), "hello");
        EXPECT_EQ(sender, loopback_address(port));
        const sockaddr_in to = socket_address(loopback_address(port));
        sendto(receiver.descriptor(), "back", 4, 0, reinterpret_cast<const sockaddr *>(&to),
               sizeof to);
        char text[10];
        EXPECT_EQ(recv(owner.socket, text, sizeof text, MSG_DONTWAIT), 4);
    }
    int shares = 1;
    socklen_t length = sizeof shares;
    getsockopt(owner.socket, SOL_SOCKET, SO_REUSEADDR, &shares, &length);
    EXPECT_EQ(shares, 0) << "no other program may share the port";
    for (const int socket : sockets) {
        close(socket);
    }
}

TEST(SendSocket, IsRenewedUnderItsNumber) {
    const Receiver receiver;
    static UdpEndpoint owner;
    ASSERT_EQ(udp_endpoint_open(owner, 0, end_at_once), 0);
    const auto port = static_cast<uint16_t>(owner.local_port);
    const int socket = open_send_socket(owner.socket, port, 100000);
    EXPECT_EQ(room_of(socket), 100000);
    EXPECT_EQ(bytes_under_way(socket), 0);
    ASSERT_TRUE(renew_send_socket(socket, owner.socket, port, 50000));
    EXPECT_EQ(room_of(socket), 50000);
    Ipv4Port sender = 0;
    send_through(socket, "renewed", receiver.place());
    EXPECT_EQ(receiver.receive(&sender), "renewed");
    EXPECT_EQ(sender, loopback_address(port));
    close(socket);
}
