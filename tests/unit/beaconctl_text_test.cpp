// How beaconctl lays out text on a terminal.
#include "beaconctl/channel_table.h"
#include "beaconctl/text_table.h"

#include <gtest/gtest.h>

TEST(TextTable, AlignsTheValues) {
    const std::vector<std::string> expected = {"a     1", "long  two", "      lines", "none"};
    EXPECT_EQ(table_lines({{"a", "1"}, {"long", "two\nlines\n"}, {"none", ""}}), expected);
}

TEST(TextTable, CountsCharactersNotBytes) {
    EXPECT_EQ(text_width("20 °C"), 5U);
    EXPECT_EQ(cut_text("20 °C", 4), "20 °");
    EXPECT_EQ(cut_text("20 °C", 9), "20 °C");
    EXPECT_EQ(cut_text("20", 0), "");
}

TEST(TextTable, KeepsControlCharactersFromTheTerminal) {
    EXPECT_EQ(printable("a\x1b[31m\x7f\r\nb", false), "a?[31m???b");
    EXPECT_EQ(printable("a\nb", true), "a\nb");
    EXPECT_EQ(printable("\xC2\x9B"
                        "1m \xC2\xA9",
                        false),
              "?1m \xC2\xA9");
}

TEST(TextTable, ABarTellsAPart) {
    EXPECT_EQ(progress_bar(0, 12), "[          ]");
    EXPECT_EQ(progress_bar(0.59, 12), "[#####     ]");
    EXPECT_EQ(progress_bar(1, 12), "[##########]");
    EXPECT_EQ(progress_bar(1.5, 12), "[##########]");
    EXPECT_EQ(progress_bar(0.5, 9), "");
}

TEST(ChannelTable, HasALineForEachChannel) {
    ReceiverAnswer receiver;
    receiver.state = rc_calibrating;
    receiver.channels = {{1500, 900, 1400, 2100, -0.143, 7, 90, true, 2},
                         {1600, 1550, 1590, 1649, 0, 0, 100, false, 77}};
    const std::vector<std::string> expected = {
        "RC1 calibrating",
        "  ch    raw    min  centre    max   value  dead band  limit  inv  function",
        "   1   1500    900    1400   2100  -0.143          7    90%  yes  pan",
        "   2   1600   1550    1590   1649   0.000          0   100%  no   77",
    };
    EXPECT_EQ(receiver_lines(1, receiver), expected);
    EXPECT_EQ(receiver_lines(2, ReceiverAnswer{}), std::vector<std::string>{"RC2 absent"});
}

TEST(ChannelTable, NumbersAreListed) {
    EXPECT_EQ(number_list({1, 12}), "1, 12");
    EXPECT_EQ(number_list({}), "none");
}
