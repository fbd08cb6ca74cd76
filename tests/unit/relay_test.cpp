#include "net/relay.h"

#include "base/bytes.h"
#include "base/clock.h"
#include "base/pause.h"
#include "thread_watch.h"

#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

struct Received {
    uint8_t type;
    uint32_t sequence;
    std::string payload;
};

static void *end_at_once(void * /*unused*/) {
    return nullptr;
}

// A registered client with its own socket.
class RelayClient {
public:
    explicit RelayClient(bool data_only = false) : socket_(socket(AF_INET, SOCK_DGRAM, 0)) {
        sockaddr_in address = socket_address(ipv4_port("127.0.0.1", 0));
        socklen_t length = sizeof address;
        EXPECT_EQ(bind(socket_, reinterpret_cast<const sockaddr *>(&address), length), 0);
        getsockname(socket_, reinterpret_cast<sockaddr *>(&address), &length);
        place_ = from_socket_address(address);
        register_client(relay_clients(), place_, data_only, now_ms());
    }
    ~RelayClient() {
        remove_client(relay_clients(), place_);
        close(socket_);
    }
    RelayClient(const RelayClient &) = delete;
    RelayClient &operator=(const RelayClient &) = delete;

    // The next packet; its header is checked.
    Received receive() const {
        uint8_t datagram[65536];
        pollfd wanted{socket_, POLLIN, 0};
        if (poll(&wanted, 1, 20000) != 1) {
            ADD_FAILURE() << "nothing came";
            return {};
        }
        const ssize_t length = recv(socket_, datagram, sizeof datagram, 0);
        EXPECT_GE(length, 12);
        EXPECT_EQ(datagram[0], 'R');
        EXPECT_EQ(get_u16(datagram + 2), length - 12);
        EXPECT_EQ(get_u32(datagram + 8), 1U);
        return {datagram[1], get_u32(datagram + 4),
                std::string(datagram + 12, datagram + std::max<ssize_t>(length, 12))};
    }

    // The payload lengths of all video packets received so far.
    std::vector<size_t> video_lengths() const {
        RelayPacket packet; // NOLINT(cppcoreguidelines-pro-type-member-init)
        set_payload_length(packet, 0);
        relay_to_client(relay_type_file, packet, "127.0.0.1", port_of(place_));
        std::vector<size_t> lengths;
        for (;;) {
            const Received received = receive();
            if (received.type != relay_type_video) {
                EXPECT_EQ(received.type, relay_type_file);
                return lengths;
            }
            lengths.push_back(received.payload.size());
        }
    }

private:
    int socket_;
    Ipv4Port place_;
};

class Relay : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_EQ(relay_init(), 0);
        ASSERT_EQ(udp_endpoint_open(endpoint, 0, end_at_once), 0);
    }
    Relay() {
        relay_open(endpoint);
    }
    static UdpEndpoint endpoint;
};

UdpEndpoint Relay::endpoint;

static std::string frame(size_t length) {
    std::string bytes;
    for (size_t i = 0; i < length; ++i) {
        bytes += static_cast<char>(i % 251);
    }
    return bytes;
}

static void relay_frame(const std::string &frame) {
    relay_video(reinterpret_cast<const uint8_t *>(frame.data()), frame.size(),
                relay_video_block_size, [] { return false; });
}

static void relay_text(uint8_t type, const std::string &text) {
    RelayPacket packet; // NOLINT(cppcoreguidelines-pro-type-member-init)
    text.copy(reinterpret_cast<char *>(packet.payload), text.size());
    set_payload_length(packet, static_cast<uint16_t>(text.size()));
    relay_to_clients(type, packet);
}

TEST_F(Relay, CutsFramesIntoBlocks) {
    const RelayClient client;
    const std::vector<std::pair<size_t, std::vector<size_t>>> cuts = {
        {0, {0}},
        {1, {1}},
        {1299, {1299}},
        {1300, {1300}},
        {1301, {1300, 1}},
        {2600, {1300, 1300}},
        {2601, {1300, 1300, 1}},
    };
    for (const auto &[length, blocks] : cuts) {
        relay_frame(frame(length));
        EXPECT_EQ(client.video_lengths(), blocks) << length;
    }
}

TEST_F(Relay, SendsAFrameWholeAndInOrder) {
    const RelayClient client;
    const std::string sent = frame(10000);
    relay_frame(sent);
    std::string received;
    uint32_t next = 0;
    for (int block = 0; block < 8; ++block) {
        const Received packet = client.receive();
        EXPECT_EQ(packet.type, relay_type_video);
        if (block > 0) {
            EXPECT_EQ(packet.sequence, next);
        }
        next = packet.sequence + 1;
        received += packet.payload;
    }
    EXPECT_EQ(received, sent);
    relay_text(relay_type_audio, "sound");
    EXPECT_EQ(client.receive().sequence, next) << "all types share the number";
}

TEST_F(Relay, ADataOnlyClientGetsNoMedia) {
    const RelayClient all;
    const RelayClient data_only(true);
    relay_frame("video");
    relay_text(relay_type_audio, "sound");
    relay_text(relay_type_internal_camera, "camera");
    relay_text(relay_type_data, "data");
    for (const char *payload : {"video", "sound", "camera", "data"}) {
        EXPECT_EQ(all.receive().payload, payload);
    }
    EXPECT_EQ(data_only.receive().payload, "data");
}

// With a socket that does not exist, only the waits take time.
TEST_F(Relay, ARoundTakesTwoMicrosecondsForEachDatagram) {
    static UdpEndpoint nowhere;
    nowhere.socket = -1;
    nowhere.tx_bytes = 0;
    relay_open(nowhere);
    const RelayClient clients[10];
    const int64_t start = monotonic_ns();
    for (int i = 0; i <= 100; ++i) {
        relay_text(relay_type_audio, "sound");
    }
    EXPECT_GE(monotonic_ns() - start, 2000000);
    EXPECT_EQ(nowhere.tx_bytes, 1010U * 17);
}

TEST_F(Relay, ALargeFrameTakesThirtyMicrosecondsABlock) {
    const RelayClient client;
    const int64_t start = monotonic_ns();
    relay_frame(frame(290000));
    EXPECT_GE(monotonic_ns() - start, (224 - 40) * 30000);
}

static void use_first_core() {
    cpu_set_t first;
    CPU_ZERO(&first);
    CPU_SET(0, &first);
    sched_setaffinity(0, sizeof first, &first);
}

// Both threads run on one core, as on a busy board: the mutex and our code decide which continues.
TEST_F(Relay, OthersGetTheirTurnBetweenTwoBlocks) {
    const RelayClient clients[10];
    constexpr uint32_t block_bytes = 10 * (relay_header_size + relay_video_block_size);
    std::atomic<bool> ends{false};
    std::atomic<uint32_t> passed_by{0}; // blocks sent while another thread's packet waited
    std::thread other([&] {
        use_first_core();
        while (!ends) {
            const uint32_t before = endpoint.tx_bytes;
            relay_text(relay_type_audio, "sound");
            passed_by += (endpoint.tx_bytes - before) / block_bytes;
            sleep_us(100);
        }
    });
    std::thread video([&] {
        use_first_core();
        const std::string bytes = frame(290000);
        for (int i = 0; i < 100; ++i) {
            // Only rounds: it never sleeps.
            relay_video(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size(),
                        relay_video_block_size, [] { return true; });
        }
    });
    video.join();
    ends = true;
    other.join();
    EXPECT_LT(passed_by, 900U) << "of 22400";
}
