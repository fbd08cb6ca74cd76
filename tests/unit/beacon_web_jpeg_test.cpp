#include "beacon_web/jpeg_parts.h"

#include <gtest/gtest.h>

static std::string part(const std::string &jpeg) {
    return "\r\n--ffmpeg\r\nContent-type: image/jpeg\r\nContent-length: " +
           std::to_string(jpeg.size()) + "\r\n\r\n" + jpeg;
}

TEST(JpegParts, ComeInAnyPieces) {
    const std::string one(1000, 'a');
    const std::string two = "with\r\n\r\n--ffmpeg\r\n in it";
    JpegParts parts;
    std::vector<std::string> found;
    for (const char letter : part(one) + part(two) + "\r\n--ffm") {
        parts.received += letter;
        while (auto jpeg = next_jpeg(parts)) {
            found.push_back(*jpeg);
        }
    }
    EXPECT_EQ(found, (std::vector<std::string>{one, two}));
    EXPECT_FALSE(parts.is_broken);
}

TEST(JpegParts, AnotherStreamIsBroken) {
    for (const std::string &received :
         {std::string(2000, 'x'), std::string("Content-length: 0\r\n\r\n"),
          std::string("Content-length: x\r\n\r\n"), std::string("nothing\r\n\r\n"),
          std::string("Content-length: 999999999\r\n\r\n"),
          std::string("Content-length: 99999999999999999999999\r\n\r\n")}) {
        JpegParts parts;
        parts.received = received;
        EXPECT_FALSE(next_jpeg(parts));
        EXPECT_TRUE(parts.is_broken) << received.substr(0, 30);
    }
}
