#include "core/command_line.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

static std::string requested_by(std::vector<const char *> words) {
    return requested_text(static_cast<int>(words.size()), words.data());
}

TEST(RequestedText, IsThatOfTheOnlyArgument) {
    EXPECT_EQ(requested_by({"quillorbeacon", "--version"}).rfind("quillorbeacon ", 0), 0U);
    EXPECT_EQ(requested_by({"anything", "--help"}).rfind("Usage: quillorbeacon", 0), 0U);
}

TEST(RequestedText, FitsATerminal) {
    const std::string help = requested_by({"quillorbeacon", "--help"});
    for (size_t at = 0, end = 0; at < help.size(); at = end + 1) {
        end = help.find('\n', at);
        ASSERT_NE(end, std::string::npos) << "the last line has no end";
        EXPECT_LE(end - at, 80U) << help.substr(at, end - at);
    }
}

TEST(RequestedText, IsNoneForAnyOtherCommandLine) {
    EXPECT_EQ(requested_by({}), "");
    EXPECT_EQ(requested_by({"quillorbeacon"}), "");
    EXPECT_EQ(requested_by({"--help"}), "");
    for (const char *word :
         {"", "-h", "-v", "help", "--hel", "--help ", "--helpme", "--HELP", "--"}) {
        EXPECT_EQ(requested_by({"quillorbeacon", word}), "") << word;
    }
    EXPECT_EQ(requested_by({"quillorbeacon", "--help", "--version"}), "");
    EXPECT_EQ(requested_by({"quillorbeacon", "--version", ""}), "");
    EXPECT_EQ(requested_by({"quillorbeacon", "x", "--help"}), "");
}
