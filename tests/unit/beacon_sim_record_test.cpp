#include "beacon_sim/encoder.h"
#include "beacon_sim/record.h"

#include <algorithm>
#include <gtest/gtest.h>

static std::string contents(const std::string &path) {
    std::string text(1000, '\0');
    FILE *file = fopen(path.c_str(), "rbe");
    text.resize(file == nullptr ? 0 : fread(text.data(), 1, text.size(), file));
    if (file != nullptr) {
        fclose(file);
    }
    return text;
}

TEST(Record, KeepsWholeUnitsUpToItsSize) {
    const std::string folder = ::testing::TempDir() + "/beacon-sim-record";
    Record record;
    ASSERT_TRUE(open_record(record, folder));
    record.keep = 5;
    add_to_record(record, {'a', 'b', 'c'}, 1000);
    add_to_record(record, {'d', 'e'}, 2000);
    add_to_record(record, {'f'}, 0x0102030405060708);
    ASSERT_TRUE(close_record(record, {1, 2, 3, 4.5}));
    EXPECT_EQ(contents(folder + "/published.h264"), "abcde");
    const std::string frames = contents(folder + "/frames.bin");
    ASSERT_EQ(frames.size(), 48U);
    EXPECT_EQ(frames.substr(32),
              std::string("\x08\x07\x06\x05\x04\x03\x02\x01\x06\0\0\0\0\0\0\0", 16));
    EXPECT_EQ(contents(folder + "/record.json"),
              R"({"telemetry": 1, "audio": 2, "commands": 3, "turned": 4.5, "frames": 3, )"
              R"("bytes": 6, "kept": 5, "sha256": )"
              R"("bef57ec7f53a6d40beb640a780a639c83bc29ac8a9816f1fc6c5c6dcd93c4721"})"
              "\n");
}

TEST(Record, SaysWhatCannotBeWritten) {
    Record record;
    ::testing::internal::CaptureStderr();
    EXPECT_FALSE(open_record(record, "/proc/no-such-folder"));
    // The line begins with the name of the program, here the tests'.
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "unit_tests: cannot make /proc/no-such-folder: No such file or directory\n");
}

static bool holds(const std::vector<std::string> &list, std::initializer_list<std::string> part) {
    return std::search(list.begin(), list.end(), part.begin(), part.end()) != list.end();
}

TEST(EncoderArguments, FollowTheOrder) {
    EncoderOrder order{"", false, true, false, 640, 360, 25, 2000, 300000};
    auto list = encoder_arguments(order);
    EXPECT_TRUE(holds(list, {"-f", "lavfi", "-i", "testsrc2=size=640x360:rate=25"}));
    EXPECT_TRUE(holds(list, {"-b:v", "2000k", "-maxrate", "2000k", "-bufsize", "1000k"}));
    EXPECT_EQ(list.back(), "pipe:1");
    order.bitrate = 50000; // half a second would not fit in a slot
    EXPECT_TRUE(holds(encoder_arguments(order), {"-bufsize", "1800k"}));
    order.file = "-film.mp4";
    order.has_audio = true;
    list = encoder_arguments(order);
    EXPECT_TRUE(holds(list, {"-re", "-i", "file:-film.mp4"}));
    EXPECT_EQ(list.back(), "pipe:3");
    order.has_video = false;
    EXPECT_FALSE(holds(encoder_arguments(order), {"pipe:1"}));
}
