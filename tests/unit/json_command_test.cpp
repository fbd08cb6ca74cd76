#include "base/json_command.h"

#include <gtest/gtest.h>
#include <string>

// A member of the command `text`; "none" when it has none.
static std::string member(const std::string &text, const char *name) {
    cJSON *command = parse_command(text.c_str());
    const char *found = find_member(command, name);
    std::string result = found != nullptr ? found : "none";
    cJSON_Delete(command);
    return result;
}

TEST(JsonCommand, TextsStayAsTheyAre) {
    EXPECT_EQ(member(R"({"a":"x","b":""})", "a"), "x");
    EXPECT_EQ(member(R"({"a":"x","b":""})", "b"), "");
    EXPECT_EQ(member(R"({"a":"x\"1\\"})", "a"), "x\"1\\");
}

TEST(JsonCommand, NumbersAreTextsAsTheyAreWritten) {
    for (const char *number :
         {"0", "1", "-1", "1.50", "-0", "1e3", "1E+3", "2147483648", "007",
          "123456789012345678901234567890", "0.1000000000000000055511151231"}) {
        const std::string text = number;
        EXPECT_EQ(member("{\"a\":" + text + "}", "a"), text);
        EXPECT_EQ(member("{ \"a\" :\n" + text + "\r\n,\t\"b\" : 2 }", "a"), text);
        EXPECT_EQ(member("{ \"b\" : 2 ,\"a\"\t: " + text + " }", "a"), text);
    }
}

TEST(JsonCommand, BooleansAre1And0) {
    EXPECT_EQ(member(R"({"a":true,"b":false})", "a"), "1");
    EXPECT_EQ(member(R"({"a":true,"b":false})", "b"), "0");
}

TEST(JsonCommand, OtherKindsAreNoTexts) {
    EXPECT_EQ(member(R"({"a":null})", "a"), "none");
    EXPECT_EQ(member(R"({"a":[1]})", "a"), "none");
    EXPECT_EQ(member(R"({"a":{"a":1}})", "a"), "none");
    EXPECT_EQ(member(R"({"b":1})", "a"), "none");
    EXPECT_EQ(member(R"({})", "a"), "none");
    EXPECT_EQ(member(R"([1,2])", "a"), "none");
}

TEST(JsonCommand, WhatComesBeforeANumberIsPassedOver) {
    for (const char *before :
         {R"("x")", R"("")", R"("\"")", R"("\\")", R"("{[,:")", R"("\\\"}")", "null", "true", "[]",
          "{}", R"([1,[2,{"a":3}],"]"])", R"({"a":{"}":[4]}})"}) {
        EXPECT_EQ(member("{\"b\":" + std::string(before) + ",\"a\":5}", "a"), "5") << before;
    }
    EXPECT_EQ(member(R"({"\"b\\":1,"a":5})", "a"), "5");
    EXPECT_EQ(member(R"({"a":5,"a":6})", "a"), "5");
    EXPECT_EQ(member("\xEF\xBB\xBF{\"a\":5}", "a"), "5");
    EXPECT_EQ(member("{\"a\":5}, \"a\":6}", "a"), "5");
}

TEST(JsonCommandDeathTest, ATextThatIsNotJsonEndsTheProcess) {
    for (const char *text : {"", "{", "{\"a\":", "{\"a\":tru}", "{\"a\":1.2.3}", "x"}) {
        EXPECT_EXIT(parse_command(text), testing::KilledBySignal(SIGABRT),
                    "^Fatal: command is not JSON\n")
            << text;
    }
}

TEST(JsonCommandDeathTest, AMissingMemberEndsTheProcess) {
    cJSON *command = parse_command(R"({"a":null})");
    EXPECT_EXIT(require_member(command, "a"), testing::KilledBySignal(SIGABRT),
                "^Fatal: command without \"a\"\n");
    cJSON_Delete(command);
}
