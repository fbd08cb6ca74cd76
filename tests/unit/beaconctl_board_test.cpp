// Which board is meant when the command line names none.
#include "beaconctl/usual_board.h"

#include <gtest/gtest.h>

TEST(UsualBoard, OfTheVariable) {
    EXPECT_EQ(parse_board("board.local").host, "board.local");
    EXPECT_FALSE(parse_board("board.local").port);
    EXPECT_EQ(parse_board("10.0.0.7:6000").host, "10.0.0.7");
    EXPECT_EQ(parse_board("10.0.0.7:6000").port, 6000);
    for (const char *wrong : {"a:", "a:0", "a:65536", "a:1x"}) {
        EXPECT_NE(parse_board(wrong).error, "") << wrong;
    }
}

TEST(UsualBoard, OfAFileWithABareAddress) {
    EXPECT_EQ(parse_board_file("10.0.0.7\n").host, "10.0.0.7");
    EXPECT_EQ(parse_board_file("10.0.0.7\n").error, "");
    for (const char *text : {"roof.local:6000 # up there\n", "host = roof.local:6000"}) {
        const UsualBoard board = parse_board_file(text);
        EXPECT_EQ(board.host, "roof.local") << text;
        EXPECT_EQ(board.port, 6000) << text;
        EXPECT_EQ(board.error, "") << text;
    }
}

TEST(UsualBoard, OfTheFile) {
    const UsualBoard board =
        parse_board_file("# the usual one\n\n host = roof.local # up there\r\nport=6000\n");
    EXPECT_EQ(board.host, "roof.local");
    EXPECT_EQ(board.port, 6000);
    EXPECT_EQ(board.error, "");
    EXPECT_EQ(parse_board_file("").host, "");
    for (const char *wrong : {"host=", "port=0", "post = 1", "a b", "roof.local:", ":5252"}) {
        EXPECT_EQ(parse_board_file(wrong).error,
                  "\"" + std::string(wrong) +
                      "\" is none of NAME, NAME:PORT, host = NAME, port = NUMBER");
    }
}
