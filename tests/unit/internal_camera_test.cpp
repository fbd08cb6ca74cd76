#include "media/internal_camera.h"

#include <gtest/gtest.h>
#include <string>

TEST(CaptureCommand, TakesTheOptionsVerbatim) {
    char command[256];
    format_capture_command(command, sizeof command, "-w 640 ; $x");
    EXPECT_STREQ(command, "raspivid -t 0 -w 640 ; $x --flush --inline --spstimings -o -");
    format_capture_command(command, sizeof command, "");
    EXPECT_STREQ(command, "raspivid -t 0  --flush --inline --spstimings -o -");
    format_capture_command(command, sizeof command, std::string(99, 'x').c_str());
    EXPECT_EQ(std::string(command).substr(14),
              std::string(99, 'x') + " --flush --inline --spstimings -o -");
}

// The seconds, with one check each, until a silent capture is given up.
static unsigned patience_with(CaptureTrial &trial) {
    unsigned looks = 1;
    while (!give_capture_up(trial, 0)) {
        ++looks;
    }
    return looks;
}

TEST(CaptureTrial, IsLostAfterASilentSecondAndEveryFifthAfterFive) {
    CaptureTrial trial{};
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(patience_with(trial), 1U);
        }
        EXPECT_EQ(patience_with(trial), 5U);
    }
}

TEST(CaptureTrial, GoesOnWhileBytesCome) {
    CaptureTrial trial{};
    for (uint32_t bytes = 1; bytes < 100; ++bytes) {
        EXPECT_FALSE(give_capture_up(trial, bytes));
    }
    EXPECT_TRUE(give_capture_up(trial, 99));
}

TEST(CaptureTrial, BeginsAnewWithTheNextCapture) {
    CaptureTrial trial{};
    EXPECT_FALSE(give_capture_up(trial, 500));
    EXPECT_TRUE(give_capture_up(trial, 500));
    EXPECT_FALSE(give_capture_up(trial, 500)); // the next one's
    EXPECT_TRUE(give_capture_up(trial, 500));
}
