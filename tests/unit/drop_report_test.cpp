#include "net/drop_report.h"

#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

class Drops : public ::testing::Test {
protected:
    void drop(const char *host, uint16_t port, int times = 1) {
        for (int i = 0; i < times; ++i) {
            count_drop(counts_, ipv4_port(host, port));
        }
    }
    std::string take() {
        char text[drop_text_capacity];
        const bool any = take_drops(counts_, text);
        EXPECT_EQ(any, text[0] != '\0');
        return text;
    }
    DropCounts counts_{};
};

TEST_F(Drops, AreToldByDestination) {
    EXPECT_EQ(take(), "");
    drop("192.168.1.2", 6000, 3);
    drop("192.168.1.2", 6001);
    drop("192.168.1.2", 6000, 2);
    EXPECT_EQ(take(), "5 for 192.168.1.2:6000, 1 for 192.168.1.2:6001");
    EXPECT_EQ(take(), "");
    drop("10.0.0.1", 1);
    EXPECT_EQ(take(), "1 for 10.0.0.1:1");
}

TEST_F(Drops, OfMoreDestinationsThanPlacesAreToldTogether) {
    for (uint16_t port = 1; port <= drop_capacity + 3; ++port) {
        drop("255.255.255.255", static_cast<uint16_t>(65000 + port));
    }
    const std::string text = take();
    EXPECT_EQ(text.substr(text.rfind(", ")), ", 3 for others");
    take();
    drop("10.0.0.1", 7);
    EXPECT_EQ(take(), "1 for 10.0.0.1:7") << "places without drops are free again";
}

TEST_F(Drops, OfSeveralThreadsAreAllCounted) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back(
            [this, i] { drop("10.0.0.1", static_cast<uint16_t>(1 + i % 2), 10000); });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    const std::string text = take();
    EXPECT_TRUE(text == "20000 for 10.0.0.1:1, 20000 for 10.0.0.1:2" ||
                text == "20000 for 10.0.0.1:2, 20000 for 10.0.0.1:1")
        << text;
}

TEST(DropReport, IsOneLineAMinuteAtMost) {
    const auto report = [](uint32_t now) {
        ::testing::internal::CaptureStderr();
        report_drops(now);
        return ::testing::internal::GetCapturedStderr();
    };
    constexpr uint32_t begin = 4294960000; // shortly before the clock wraps
    EXPECT_EQ(report(begin), "");
    count_drop(ipv4_port("10.0.0.1", 7));
    EXPECT_EQ(report(begin), "Dropped on the way to slow receivers: 1 for 10.0.0.1:7\n");
    count_drop(ipv4_port("10.0.0.1", 7));
    EXPECT_EQ(report(begin + 59999), "");
    count_drop(ipv4_port("10.0.0.1", 7));
    EXPECT_EQ(report(begin + 60000), "Dropped on the way to slow receivers: 2 for 10.0.0.1:7\n");
    EXPECT_EQ(report(begin + 120000), "");
    count_drop(ipv4_port("10.0.0.1", 7));
    EXPECT_EQ(report(begin + 120001), "Dropped on the way to slow receivers: 1 for 10.0.0.1:7\n");
}
