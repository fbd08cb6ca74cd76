#include "base/shell.h"

#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <string>

static std::atomic<int> signals_seen;

// Catches SIGUSR1 without restarting what it interrupts.
class InterruptedReading : public testing::Test {
protected:
    void SetUp() override {
        signals_seen = 0;
        struct sigaction action {};
        action.sa_handler = [](int) { ++signals_seen; };
        sigaction(SIGUSR1, &action, &before_);
    }
    void TearDown() override {
        sigaction(SIGUSR1, &before_, nullptr);
    }

private:
    struct sigaction before_ {};
};

// Signals that fall between two pieces of what is printed.
constexpr const char *interrupting =
    "printf abc; for i in 1 2 3 4; do sleep 0.05; kill -USR1 $PPID; done; sleep 0.05; printf def";

TEST_F(InterruptedReading, GivesTheWholeOutput) {
    EXPECT_EQ(shell_output(interrupting, 100), "abcdef");
    EXPECT_GE(signals_seen, 1);
}

TEST_F(InterruptedReading, FillsThePiece) {
    FILE *pipe = popen(interrupting, "re");
    ASSERT_NE(pipe, nullptr);
    char piece[5];
    EXPECT_EQ(read_pipe(pipe, piece, sizeof piece), 5U);
    EXPECT_EQ(std::string(piece, 5), "abcde");
    EXPECT_EQ(read_pipe(pipe, piece, sizeof piece), 1U);
    EXPECT_EQ(piece[0], 'f');
    EXPECT_EQ(read_pipe(pipe, piece, sizeof piece), 0U);
    EXPECT_GE(signals_seen, 1);
    pclose(pipe);
}
