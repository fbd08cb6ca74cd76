// The console's link to the daemon, and what it makes of packets that a network damages.
#include "beacon_web/console.h"
#include "beacon_web/metrics.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace std::string_literals;

namespace {

const TimePoint start = TimePoint{} + std::chrono::hours(1);

// A UDP socket in place of the daemon, on a port chosen by the system.
class BoardLinkTest : public ::testing::Test {
protected:
    int daemon_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    BoardLink board_;
    BoardView view_;
    sockaddr_in client_{}; // that was heard last

    void SetUp() override {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        ASSERT_EQ(bind(daemon_, reinterpret_cast<sockaddr *>(&address), size), 0);
        ASSERT_EQ(getsockname(daemon_, reinterpret_cast<sockaddr *>(&address), &size), 0);
        ASSERT_TRUE(begin_board_link(board_, "127.0.0.1", ntohs(address.sin_port), view_));
    }
    void TearDown() override {
        close(daemon_);
        close(board_.readable);
    }
    void step(double seconds) {
        step_board_link(board_, view_, start + from_seconds(seconds));
    }
    // The payload of the next datagram that the daemon has received; "" when there is none.
    std::string received() {
        char buffer[100];
        socklen_t size = sizeof client_;
        const ssize_t length = recvfrom(daemon_, buffer, sizeof buffer, MSG_DONTWAIT,
                                        reinterpret_cast<sockaddr *>(&client_), &size);
        return length < 12 ? "" : std::string(buffer + 12, static_cast<size_t>(length) - 12);
    }
};

const std::string registration = "\2\0"s;
const std::string leaving = "\3";

} // namespace

TEST_F(BoardLinkTest, IsOpenedAnewWhenTheBoardIsSilent) {
    step(0);
    EXPECT_EQ(received(), registration);
    const in_port_t first = client_.sin_port;
    step(9.9);
    EXPECT_EQ(received(), registration);
    EXPECT_EQ(client_.sin_port, first);
    step(10.1);
    EXPECT_EQ(received(), leaving);
    EXPECT_EQ(received(), registration);
    EXPECT_NE(client_.sin_port, first);
    EXPECT_TRUE(view_.is_here);
}

TEST_F(BoardLinkTest, StaysOpenWhileTheBoardIsHeard) {
    step(0);
    EXPECT_EQ(received(), registration);
    const std::string packet = "R\0\1\0\1\0\0\0\1\0\0\0x"s;
    ASSERT_EQ(sendto(daemon_, packet.data(), packet.size(), 0,
                     reinterpret_cast<sockaddr *>(&client_), sizeof client_),
              static_cast<ssize_t>(packet.size()));
    board_.heard = {};
    int packets = 0;
    read_board_link(board_, view_, [&packets](const PacketView &) { ++packets; });
    EXPECT_EQ(packets, 1);
    EXPECT_GT(board_.heard, TimePoint{});
}

namespace {

constexpr size_t block_size = 1300;

// 1280x720, main profile, level 3.1, frame numbers of 4 bits.
const std::string parameter_sets = "\0\0\0\1\x67\x4d\x40\x1f\xe8\x80\x28\x02\xdc\x80"
                                   "\0\0\0\1\x68\xee\x3c\x80"s;

// A picture of several blocks; of each group of ten the first is a key picture.
std::string picture(unsigned number) {
    const unsigned in_group = number % 10;
    std::string stream = in_group == 0 ? parameter_sets + "\0\0\0\1\x65"s : "\0\0\0\1\x61"s;
    stream += static_cast<char>(0xE0U | in_group << 1U);
    for (int i = 0; i < 700; ++i) {
        stream += "#" + std::to_string(100000 + number * 1000 + static_cast<unsigned>(i));
    }
    return stream;
}

struct Numbered {
    uint32_t sequence;
    std::string payload;
    uint8_t type = 1;
};

// The blocks of pictures, as the daemon numbers them.
std::vector<Numbered> video(unsigned pictures, uint32_t sequence = 100) {
    std::vector<Numbered> packets;
    for (unsigned number = 0; number < pictures; ++number) {
        const std::string stream = picture(number);
        for (size_t at = 0; at < stream.size(); at += block_size) {
            packets.push_back({sequence++, stream.substr(at, block_size)});
        }
    }
    return packets;
}

PacketNews give(Console &console, const Numbered &packet) {
    PacketView seen{};
    seen.type = packet.type;
    seen.sequence = packet.sequence;
    seen.payload = {reinterpret_cast<const uint8_t *>(packet.payload.data()),
                    packet.payload.size()};
    note_packet(console.view, seen, start);
    return take_board_packet(console, seen, start);
}

bool is_as_sent(const Fragment &fragment) {
    for (unsigned number = 0; number < 20; ++number) {
        const std::string stream = picture(number);
        if (fragment.data->ends_with(stream.substr(stream.find('#')))) {
            return true;
        }
    }
    return false;
}

// How many pictures browsers get. All of them are as the camera sent them.
uint64_t shown(const std::vector<Numbered> &packets, Console &console) {
    for (const Numbered &packet : packets) {
        if (give(console, packet).has_pictures) {
            EXPECT_TRUE(is_as_sent(console.ring.pictures.back()));
        }
    }
    return console.view.pictures;
}

} // namespace

TEST(Console, APacketThatComesTwiceCountsOnce) {
    std::vector<Numbered> packets = video(20);
    for (size_t at = 3; at < packets.size(); at += 8) {
        packets.insert(packets.begin() + static_cast<ptrdiff_t>(at), packets[at]);
    }
    Console console;
    EXPECT_EQ(shown(packets, console), 20U);
    const Numbered sound{packets.back().sequence + 1, std::string(640, 'x'), 2};
    EXPECT_TRUE(give(console, sound).sound);
    EXPECT_FALSE(give(console, sound).sound);
}

TEST(Console, TwoPacketsInTheWrongOrderDamageNoPicture) {
    const std::vector<Numbered> packets = video(20);
    const size_t blocks = packets.size() / 20;
    ASSERT_EQ(blocks, 4U);
    for (size_t at = 0; at < blocks; ++at) { // of the key picture; the last with the next one's
        std::vector<Numbered> swapped = packets;
        std::swap(swapped[at], swapped[at + 1]);
        Console console;
        EXPECT_EQ(shown(swapped, console), 10U) << at;
    }
}

TEST(Console, APacketThatIsLateButInItsPlaceIsTaken) {
    std::vector<Numbered> packets = video(20);
    const Numbered sound{packets[50].sequence, "sound", 2};
    for (size_t at = 50; at < packets.size(); ++at) {
        ++packets[at].sequence;
    }
    packets.insert(packets.begin() + 49, sound); // it has overtaken the block before it
    Console console;
    EXPECT_EQ(shown(packets, console), 20U);
}

TEST(Console, TheCounterOfLossesNeverGoesDown) {
    Console console;
    give(console, {100, "one", 0});
    give(console, {102, "three", 0});
    give(console, {101, "two", 0});
    EXPECT_EQ(console.view.sequence.lost, 0U);
    EXPECT_NE(metrics_text(console.view, 0, 0, start).find("\nbeacon_lost_packets_total 1\n"),
              std::string::npos);
}

TEST(Console, OnTheBoardAnswersToOthersTakeNoPicture) {
    std::vector<Numbered> packets = video(20);
    for (size_t i = 0; i < packets.size(); ++i) {
        packets[i].sequence += static_cast<uint32_t>(i / 2); // each second number is another's
    }
    Console console;
    console.view.is_here = true;
    EXPECT_EQ(shown(packets, console), 20U);
    Console far;
    EXPECT_LT(shown(packets, far), 5U);
}

TEST(Console, OnTheBoardWhatTheSystemDropsIsALoss) {
    const std::vector<Numbered> packets = video(20);
    const size_t blocks = packets.size() / 20;
    for (size_t lost = 0; lost <= blocks; ++lost) {
        Console console;
        console.view.is_here = true;
        for (size_t i = 0; i < packets.size(); ++i) {
            if (i == lost) {
                ++console.link.link.dropped;
            } else {
                give(console, packets[i]);
            }
        }
        EXPECT_EQ(shown({}, console), lost == blocks ? 11U : 10U);
    }
}

TEST(Console, ADaemonThatIsStartedAgainIsSeen) {
    std::vector<Numbered> packets = video(20, 100000);
    packets.resize(packets.size() / 2 + 3); // it ends inside a picture
    const std::vector<Numbered> after = video(20, 0);
    packets.insert(packets.end(), after.begin(), after.end());
    Console console;
    EXPECT_EQ(shown(packets, console), 30U);
}
