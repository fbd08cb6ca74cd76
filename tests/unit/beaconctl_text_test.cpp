// beaconctl's texts: the mending of answers, tables, and the check of commands.
#include "beaconctl/text_table.h"
#include "client/command_check.h"
#include "client/mend.h"
#include "client/packet.h"

#include <gtest/gtest.h>

TEST(Mend, LeavesGoodJsonAsItIs) {
    for (const char *text :
         {R"({})", R"({"a":1,"b":[1,2],"c":"x, y","d":{"e":""}})", R"([1,[2],{"a":"b"}])"}) {
        EXPECT_EQ(mend_answer(text), text);
    }
}

TEST(Mend, DropsCommasBeforeClosingMarks) {
    EXPECT_EQ(mend_answer(R"({"cmd":"config_answer",})"), R"({"cmd":"config_answer"})");
    EXPECT_EQ(mend_answer("{\"a\":[1, \n ], }"), "{\"a\":[1 \n ] }");
}

TEST(Mend, KeepsCommasWithinStrings) {
    EXPECT_EQ(mend_answer(R"({"list":"1,2,},]",})"), R"({"list":"1,2,},]"})");
}

TEST(Mend, EscapesControlCharactersWithinStringsOnly) {
    EXPECT_EQ(mend_answer("{\n\"a\":\"x\ny\tz\x01\"}"), "{\n\"a\":\"x\\ny\\u0009z\\u0001\"}");
}

TEST(Mend, ABackslashStandsForItself) {
    EXPECT_EQ(mend_answer(R"({"psk":"a\nb\"})"), R"({"psk":"a\\nb\\"})");
}

TEST(Mend, AQuoteWithinAStringStandsForItself) {
    EXPECT_EQ(mend_answer(R"({"psk":"say "x" now","n":1})"), R"({"psk":"say \"x\" now","n":1})");
    EXPECT_EQ(mend_answer(R"({"psk":"a", b","n":1})"), R"({"psk":"a\", b","n":1})");
    EXPECT_EQ(mend_answer(R"({"psk":"a} "} b"})"), R"({"psk":"a} \"} b"})");
}

TEST(Mend, ReplacesWhatIsNoUtf8) {
    EXPECT_EQ(mend_utf8("ab\xC3"), "ab\xEF\xBF\xBD");
    EXPECT_EQ(mend_utf8("\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"),
              "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
    EXPECT_EQ(mend_utf8("\xC0\x80"), "\xEF\xBF\xBD\xEF\xBF\xBD"); // too long
    EXPECT_EQ(mend_utf8("\xED\xA0\x80x").substr(9), "x");         // a surrogate
    EXPECT_EQ(mend_utf8("\xF4\x90\x80\x80").size(), 12U);         // past the last
    EXPECT_EQ(mend_answer("{\"a\":\"\xFF\"}"), "{\"a\":\"\xEF\xBF\xBD\"}");
}

TEST(Mend, DecodesHexEscapes) {
    EXPECT_EQ(decode_hex_escapes(R"(Caf\xC3\xA9)"), "Caf\xC3\xA9");
    EXPECT_EQ(decode_hex_escapes(R"(\x4 \xg0 \y41 \x41\x)"), R"(\x4 \xg0 \y41 A\x)");
}

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

static std::string refusal(const char *text) {
    const CheckedCommand checked = check_command(text);
    EXPECT_EQ(checked.text.empty(), !checked.reason.empty());
    return checked.reason;
}

TEST(CommandCheck, TakesWhatTheDaemonCanTake) {
    EXPECT_EQ(check_command(R"( {"cmd" : "reboot", "n":[1]} )").text,
              R"({"cmd":"reboot","n":[1]})");
    EXPECT_EQ(refusal(R"({"cmd":"wlan","param":"scan","value":""})"), "");
    EXPECT_EQ(refusal(R"({"cmd":"config_request"})"), "");
    EXPECT_EQ(refusal(R"({"CMD":"rc","PARAM":"x"})"), ""); // names are matched in any case
    EXPECT_EQ(check_command("!anything").text, "!anything");
}

TEST(CommandCheck, RefusesWhatTheDaemonEndsOn) {
    EXPECT_EQ(refusal(""), "it is no valid JSON");
    EXPECT_EQ(refusal("{"), "it is no valid JSON");
    EXPECT_EQ(refusal(R"({"cmd":"x",})"), "it is no valid JSON");
    EXPECT_EQ(refusal("[]"), "it is no JSON object");
    EXPECT_EQ(refusal("{}"), "it has no text member \"cmd\"");
    EXPECT_EQ(refusal(R"({"cmd":1})"), "it has no text member \"cmd\"");
    EXPECT_EQ(refusal(R"({"CMD":1,"cmd":"x"})"), "it has no text member \"cmd\"");
    EXPECT_EQ(refusal(R"({"cmd":"updateconfig"})"), "it has no text member \"param\"");
    EXPECT_EQ(refusal(R"({"cmd":"file","param":null})"), "it has no text member \"param\"");
    EXPECT_EQ(refusal(R"({"cmd":"rc"})"), "it has no text member \"param\"");
    EXPECT_EQ(refusal(R"({"cmd":"wlan","param":"scan"})"), "it has no text member \"value\"");
}

TEST(CommandCheck, RefusesWhatTheDaemonWouldReadInPart) {
    const std::string frame = R"({"cmd":""})";
    std::string command =
        R"({"cmd":")" + std::string(largest_client_payload - frame.size(), 'x') + R"("})";
    EXPECT_EQ(command.size(), 29988U);
    EXPECT_EQ(refusal(command.c_str()), "");
    command.insert(command.size() - 2, "x");
    const CheckedCommand refused = check_command(command);
    EXPECT_EQ(refused.reason, "it is too long: the daemon reads 29988 bytes at most");
    EXPECT_TRUE(refused.is_too_long);
    EXPECT_TRUE(check_command("!" + command).is_too_long);
    EXPECT_FALSE(check_command("{").is_too_long);
}

// The daemon's texts end there: it would miss the command's "param".
TEST(CommandCheck, RefusesNuls) {
    const char *const reason = "a text in it holds a NUL";
    EXPECT_EQ(refusal(R"({"cmd":"rc\u0000"})"), reason);
    EXPECT_EQ(refusal(R"({"cmd":"x","y":"a\u0000b"})"), reason);
    EXPECT_EQ(refusal(R"({"cmd\u0000":"rc","cmd":"x"})"), reason);
    EXPECT_EQ(refusal(R"({"cmd":"x","y":"\\u0000"})"), "");
}

TEST(CommandCheck, RefusesDeepNesting) {
    const auto nested = [](size_t depth) {
        return R"({"cmd":"x","a":)" + std::string(depth, '[') + std::string(depth, ']') + "}";
    };
    EXPECT_EQ(refusal(nested(99).c_str()), "");
    EXPECT_EQ(refusal(nested(1000).c_str()), "it is nested too deeply");
}
