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
