#include "net/client_registry.h"

#include <functional>
#include <gtest/gtest.h>
#include <string>

static uint32_t now;

static uint32_t test_clock() {
    return now;
}

class Registry : public ::testing::Test {
protected:
    static Ipv4Port client(int i) {
        return ipv4_port(("10.0.0." + std::to_string(i + 1)).c_str(),
                         static_cast<uint16_t>(4000 + i));
    }
    std::string sweep() {
        char json[clients_json_capacity];
        sweep_clients(registry_, test_clock, json);
        return json;
    }

    ClientRegistry registry_;
};

TEST_F(Registry, IsEmptyAtFirst) {
    EXPECT_EQ(sweep(), "[]");
    EXPECT_EQ(registry_.count, 0);
}

TEST_F(Registry, ListsClientsWithTheirAge) {
    register_client(registry_, client(0), false, 5000);
    register_client(registry_, client(1), true, 6000);
    now = 6500;
    EXPECT_EQ(sweep(), R"([{"host":"10.0.0.1","port":4000,"timeout":1500,"mode":0},)"
                       R"({"host":"10.0.0.2","port":4001,"timeout":500,"mode":1}])");
    EXPECT_EQ(registry_.count, 2);
}

TEST_F(Registry, TheCommaFollowsTheSlotIndex) {
    for (int i = 0; i < 3; ++i) {
        register_client(registry_, client(i), false, 0);
    }
    remove_client(registry_, client(0));
    remove_client(registry_, client(1));
    now = 0;
    EXPECT_EQ(sweep(), R"([,{"host":"10.0.0.3","port":4002,"timeout":0,"mode":0}])");
}

TEST_F(Registry, DropsAClientAfterTenSecondsAndNotBefore) {
    register_client(registry_, client(0), false, 5000);
    now = 15000;
    EXPECT_NE(sweep(), "[]");
    now = 15001;
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(sweep(), "[]");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "UDP server: Client 10.0.0.1:4000 lost\n");
    EXPECT_EQ(registry_.count, 0);
    EXPECT_EQ(slot_destination(registry_.slots[0], false), 0U);
}

TEST_F(Registry, AgesSurviveTheWrapOfTheClock) {
    register_client(registry_, client(0), false, 0xFFFFFFF0U);
    now = 0x10;
    EXPECT_EQ(sweep(), R"([{"host":"10.0.0.1","port":4000,"timeout":32,"mode":0}])");
    now = 0xFFFFFFF0U + 10001;
    EXPECT_EQ(sweep(), "[]");
}

TEST_F(Registry, AClockSetBackDropsTheClient) {
    register_client(registry_, client(0), false, 5000);
    now = 4999;
    EXPECT_EQ(sweep(), "[]");
}

TEST_F(Registry, TheCountChangesOnlyInTheSweep) {
    register_client(registry_, client(0), false, 0);
    EXPECT_EQ(registry_.count, 0);
    now = 0;
    sweep();
    EXPECT_EQ(registry_.count, 1);
    remove_client(registry_, client(0));
    EXPECT_EQ(registry_.count, 1);
}

TEST_F(Registry, HoldsTenAndIgnoresTheEleventh) {
    for (int i = 0; i < 10; ++i) {
        register_client(registry_, client(i), false, 0);
    }
    ::testing::internal::CaptureStderr();
    register_client(registry_, client(10), false, 0);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(slot_destination(registry_.slots[i], true), client(i));
    }
}

TEST_F(Registry, TheListOfTenLongestClientsFits) {
    for (int i = 0; i < 10; ++i) {
        register_client(registry_, ipv4_port("255.255.255.255", static_cast<uint16_t>(65526 + i)),
                        true, 0);
    }
    now = 10000;
    const std::string json = sweep();
    EXPECT_EQ(json.back(), ']');
    EXPECT_NE(json.find("65535"), std::string::npos);
}

TEST_F(Registry, AFreedSlotIsTakenFirst) {
    for (int i = 0; i < 3; ++i) {
        register_client(registry_, client(i), false, 0);
    }
    remove_client(registry_, client(1));
    register_client(registry_, client(5), false, 0);
    EXPECT_EQ(slot_destination(registry_.slots[1], false), client(5));
}

TEST_F(Registry, RegisteringAgainChangesTheModeWithoutAWord) {
    ::testing::internal::CaptureStderr();
    register_client(registry_, client(0), false, 0);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "UDP server: New client connected from 10.0.0.1:4000  \n");
    EXPECT_EQ(slot_destination(registry_.slots[0], true), client(0));
    ::testing::internal::CaptureStderr();
    register_client(registry_, client(0), true, 1);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(slot_destination(registry_.slots[0], true), 0U);
    EXPECT_EQ(slot_destination(registry_.slots[0], false), client(0));
    EXPECT_EQ(slot_destination(registry_.slots[1], false), 0U);
}

TEST_F(Registry, SaysWhoComesAndGoes) {
    ::testing::internal::CaptureStderr();
    register_client(registry_, client(0), true, 0);
    remove_client(registry_, client(1));
    remove_client(registry_, client(0));
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "UDP server: New client connected from 10.0.0.1:4000 (no video/audio)\n"
              "UDP server: Client 10.0.0.1:4000 removed\n");
}

TEST_F(Registry, ASenderWithoutAnAddressIsNoClient) {
    ::testing::internal::CaptureStderr();
    for (const uint16_t port : {uint16_t{0}, uint16_t{5000}}) {
        register_client(registry_, ipv4_port("0.0.0.0", port), false, 0);
        remove_client(registry_, ipv4_port("0.0.0.0", port));
        register_client(registry_, ipv4_port("0.0.0.0", port), true, 0);
    }
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    for (const ClientSlot &slot : registry_.slots) {
        EXPECT_EQ(slot.client, 0U);
    }
    now = 0;
    EXPECT_EQ(sweep(), "[]");
}

TEST_F(Registry, OneHostWithTwoPortsIsTwoClients) {
    register_client(registry_, ipv4_port("10.0.0.1", 1), false, 0);
    register_client(registry_, ipv4_port("10.0.0.1", 2), false, 0);
    EXPECT_EQ(slot_destination(registry_.slots[1], false), ipv4_port("10.0.0.1", 2));
}

TEST_F(Registry, TheVersionChangesWithAddressesAndModesAlone) {
    const auto changes = [this](const std::function<void()> &action) {
        const uint32_t before = registry_.version;
        action();
        return registry_.version != before;
    };
    now = 7000;
    EXPECT_TRUE(changes([this] { register_client(registry_, client(0), false, 5000); }));
    EXPECT_FALSE(changes([this] { register_client(registry_, client(0), false, 6000); }));
    EXPECT_FALSE(changes([this] { sweep(); }));
    EXPECT_TRUE(changes([this] { register_client(registry_, client(0), true, 6000); }));
    EXPECT_TRUE(changes([this] { register_client(registry_, client(1), false, 6000); }));
    EXPECT_FALSE(changes([this] { remove_client(registry_, client(2)); }));
    EXPECT_TRUE(changes([this] { remove_client(registry_, client(1)); }));
    now = 60000;
    EXPECT_TRUE(changes([this] { sweep(); })) << "lost";
}
