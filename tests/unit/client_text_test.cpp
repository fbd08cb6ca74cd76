// Texts from and to the daemon: repairing its answers, checking commands.
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

TEST(Mend, LooksAtEachBlankAFewTimesOnly) {
    const std::string text = "{" + std::string(2 << 20, ' ') + "}"; // for hours otherwise
    EXPECT_EQ(mend_answer(text), text);
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

TEST(Mend, ShowsThatBytesWereReplaced) {
    EXPECT_TRUE(is_mended(mend_utf8("Caf\xE9")));
    EXPECT_FALSE(is_mended(mend_utf8("Caf\xC3\xA9")));
}

TEST(Mend, DecodesHexEscapes) {
    EXPECT_EQ(decode_hex_escapes(R"(Caf\xC3\xA9)"), "Caf\xC3\xA9");
    EXPECT_EQ(decode_hex_escapes(R"(\x4 \xg0 \y41 \x41\x)"), R"(\x4 \xg0 \y41 A\x)");
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
    EXPECT_EQ(refusal("{"), "it is not valid JSON");
    EXPECT_EQ(check_command("{").harm, Harm::ends_daemon);
    EXPECT_EQ(refusal(R"({"cmd":"x",})"), "it is not valid JSON");
    EXPECT_EQ(refusal("{}"), "it has no text member \"cmd\"");
    EXPECT_EQ(refusal(R"({"cmd":[1]})"), "it has no text member \"cmd\"");
    EXPECT_EQ(refusal(R"({"cmd":1})"), "") << "a number counts as its text";
    EXPECT_EQ(refusal(R"({"cmd":"wlan","param":true,"value":0})"), "");
    EXPECT_EQ(refusal(R"({"CMD":null,"cmd":"x"})"), "it has no text member \"cmd\"");
    EXPECT_EQ(refusal(R"({"cmd":"updateconfig"})"), "it has no text member \"param\"");
    EXPECT_EQ(refusal(R"({"cmd":"file","param":null})"), "it has no text member \"param\"");
    EXPECT_EQ(refusal(R"({"cmd":"rc"})"), "it has no text member \"param\"");
    EXPECT_EQ(refusal(R"({"cmd":"wlan","param":"scan"})"), "it has no text member \"value\"");
}

TEST(CommandCheck, RefusesWhatTheDaemonIgnores) {
    for (const char *text : {"", " ", "[]", "hello", "\"x\"", " !x"}) {
        EXPECT_EQ(refusal(text), "it is neither a JSON object nor a \"!\" and a text");
        EXPECT_EQ(check_command(text).harm, Harm::ignored);
    }
}

TEST(CommandCheck, TellsWhatTheDaemonDoes) {
    const auto effect = [](const char *text) { return check_command(text).effect; };
    EXPECT_EQ(effect("!x"), "it passes it on to the camera's program, if one is there");
    EXPECT_EQ(effect(R"({"cmd":"x"})"), "it ignores it: it knows no command \"x\"");
    EXPECT_EQ(effect(R"({"cmd":"Restart"})"), "it ignores it: it knows no command \"Restart\"");
    EXPECT_EQ(effect(R"({"cmd":"rc","param":"x"})"),
              "it ignores it: it knows no param \"x\" of rc");
    EXPECT_EQ(effect(R"({"cmd":"config_request"})"), "it ignores it: it has no param");
    EXPECT_EQ(effect(R"({"cmd":"restart"})"), "it ends, and its supervisor starts it again");
    EXPECT_EQ(effect(R"({"cmd":"rc","param":"set-config"})"),
              "it stores the channels; it does not answer");
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
    EXPECT_EQ(refused.harm, Harm::read_in_part);
    EXPECT_EQ(check_command("!" + command).harm, Harm::read_in_part);
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
    EXPECT_EQ(refusal(nested(999).c_str()), "");
    EXPECT_EQ(refusal(nested(1000).c_str()), "it is nested too deeply");
}
