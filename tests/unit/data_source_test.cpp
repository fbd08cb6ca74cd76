// The data source server on a free port, and a source with its own socket.
#include "media/data_source.h"

#include "base/ipv4.h"

#include "thread_watch.h"
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

static int open_socket() {
    const int made = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_in any = socket_address(ipv4_port("127.0.0.1", 0));
    bind(made, reinterpret_cast<const sockaddr *>(&any), sizeof any);
    const timeval patience{1, 0};
    setsockopt(made, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    return made;
}

// Starts the server on a port that was free a moment ago. Returns the port, or 0 on failure.
static uint16_t start_server() {
    for (int attempt = 0; attempt < 100; ++attempt) {
        const int probe = open_socket();
        sockaddr_in address{};
        socklen_t length = sizeof address;
        getsockname(probe, reinterpret_cast<sockaddr *>(&address), &length);
        close(probe);
        const uint16_t port = ntohs(address.sin_port);
        if (init_data_source(port, nullptr) == 0) {
            return port;
        }
    }
    return 0;
}

// The next command other than the one sent every second; empty when none arrives within a second.
static std::string next_command(int source) {
    char datagram[4096];
    ssize_t length = 0;
    while ((length = recv(source, datagram, sizeof datagram, 0)) >= 0) {
        std::string command(datagram, static_cast<size_t>(length));
        if (command.find("\"name\":\"movement\"") == std::string::npos) {
            return command;
        }
    }
    return {};
}

TEST(DataSource, CommandsAreCutTo1023Characters) {
    const uint16_t port = start_server();
    ASSERT_NE(port, 0);
    const int source = open_socket();
    const sockaddr_in server = socket_address(ipv4_port("127.0.0.1", port));
    connect(source, reinterpret_cast<const sockaddr *>(&server), sizeof server);
    const std::string value(2000, 'v');
    const std::string whole = R"(!{"cmd":"zoom","name":"n","param":"p","value":")" + value;
    send(source, "x", 1, 0);
    ASSERT_TRUE(wait_for([] { return data_source_present(); }));
    send_data_source_command("zoom", "n", "p", value.c_str(), "2", "3");
    const std::string command = next_command(source);
    close(source);
    EXPECT_EQ(command, whole.substr(0, 1023));
}
