#include "base/board_address.h"

#include <gtest/gtest.h>
#include <netinet/in.h>

constexpr uint32_t host(uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
    return a << 24 | b << 16 | c << 8 | d;
}
constexpr uint32_t documentation_host = host(192, 0, 2, 7); // belongs to nobody

TEST(BoardAddress, WhatArrivesHere) {
    EXPECT_TRUE(is_board_host(INADDR_LOOPBACK));
    EXPECT_TRUE(is_board_host(host(127, 8, 9, 10)));
    EXPECT_TRUE(is_board_host(INADDR_ANY));
    EXPECT_TRUE(is_board_host(INADDR_BROADCAST));
    EXPECT_TRUE(is_board_host(host(127, 255, 255, 255)));
    EXPECT_FALSE(is_board_host(documentation_host));
    EXPECT_FALSE(is_board_host(host(224, 0, 0, 1)));
    EXPECT_FALSE(is_board_host(host(239, 255, 255, 255)));
}

TEST(BoardAddress, WhatStandsForSeveralHosts) {
    EXPECT_TRUE(is_group_host(host(224, 0, 0, 0)));
    EXPECT_TRUE(is_group_host(host(239, 255, 255, 255)));
    EXPECT_TRUE(is_group_host(INADDR_BROADCAST));
    EXPECT_TRUE(is_group_host(host(127, 255, 255, 255)));
    EXPECT_FALSE(is_group_host(INADDR_LOOPBACK));
    EXPECT_FALSE(is_group_host(host(127, 8, 9, 10)));
    EXPECT_FALSE(is_group_host(documentation_host));
    EXPECT_FALSE(is_group_host(host(223, 255, 255, 255)));
}
