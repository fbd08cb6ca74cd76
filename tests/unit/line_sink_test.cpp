#include "base/line_sink.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

// A reader: what has come to it, and how much more it takes.
static std::string read_so_far;
static size_t room;

static ssize_t write_to_reader(const char *data, size_t size) {
    if (room == 0) {
        return -1;
    }
    const size_t taken = std::min(size, room);
    read_so_far.append(data, taken);
    room -= taken;
    return static_cast<ssize_t>(taken);
}

class Lines : public testing::Test {
protected:
    void SetUp() override {
        read_so_far.clear();
        room = 1000;
    }
    void put(const std::string &text) {
        put_text(sink_, text.data(), text.size());
    }

private:
    LineSink sink_{write_to_reader, "", 0, false, false};
};

static std::string dropped(int count) {
    return "Standard error was not read: " + std::to_string(count) + " lines dropped\n";
}

TEST_F(Lines, GoThrough) {
    put("one\n");
    put("two\nthree\n");
    EXPECT_EQ(read_so_far, "one\ntwo\nthree\n");
}

TEST_F(Lines, ThatFindNoRoomAreCountedAndTold) {
    room = 0;
    put("one\n");
    put("two\nthree\n");
    room = 1000;
    put("four\n");
    put("five\n");
    EXPECT_EQ(read_so_far, dropped(3) + "four\nfive\n");
}

TEST_F(Lines, AreToldOfOnlyOnce) {
    room = 0;
    put("one\n");
    room = 1000;
    put("two\n");
    room = 0;
    put("three\n");
    room = 1000;
    put("four\n");
    EXPECT_EQ(read_so_far, dropped(1) + "two\n" + dropped(1) + "four\n");
}

TEST_F(Lines, AreCompletedWhenTheReaderHasTakenAPart) {
    room = 3;
    put("a long line\n");
    EXPECT_EQ(read_so_far, "a l");
    put("lost\n");
    room = 4;
    put("lost, too\n");
    EXPECT_EQ(read_so_far, "a long ");
    room = 1000;
    put("next\n");
    EXPECT_EQ(read_so_far, "a long line\n" + dropped(2) + "next\n");
}

TEST_F(Lines, AreCompletedWhenTheNumberItselfWasTakenInPart) {
    room = 0;
    put("one\n");
    room = 5;
    put("two\n");
    put("three\n");
    room = 1000;
    put("four\n");
    EXPECT_EQ(read_so_far, dropped(1) + "two\n" + dropped(1) + "four\n");
}

TEST_F(Lines, MayComeInPieces) {
    put("Loading... ");
    put("done\n");
    EXPECT_EQ(read_so_far, "Loading... done\n");
}

TEST_F(Lines, WhoseStartWasDroppedAreDroppedToTheirEnd) {
    room = 0;
    put("Loading... ");
    room = 1000;
    put("half ");
    put("done\nnext\n");
    EXPECT_EQ(read_so_far, dropped(1) + "next\n");
}

TEST_F(Lines, WhoseEndWasDroppedGetAnEnd) {
    put("Loading... ");
    room = 0;
    put("done\n");
    room = 1000;
    put("next\n");
    EXPECT_EQ(read_so_far, "Loading... \n" + dropped(1) + "next\n");
}

TEST_F(Lines, OfNothingAreNothing) {
    put("");
    room = 0;
    put("");
    room = 1000;
    put("one\n");
    EXPECT_EQ(read_so_far, "one\n");
}
