#include "base/bytes.h"
#include "base/text.h"

#include "base/ipv4.h"
#include "base/shell.h"

#include <array>
#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <thread>

TEST(CopyText, CutsToTheFieldAndEndsIt) {
    char field[5] = {'x', 'x', 'x', 'x', 'x'};
    copy_text(field, sizeof field, "abcdefgh");
    EXPECT_STREQ(field, "abcd");
    copy_text(field, sizeof field, "ab");
    EXPECT_STREQ(field, "ab");
    copy_text(field, sizeof field, "");
    EXPECT_STREQ(field, "");
}

TEST(CopyText, TakesPercentSignsAsTheyAre) {
    char field[20];
    copy_text(field, sizeof field, "%n%s%d%%");
    EXPECT_STREQ(field, "%n%s%d%%");
}

TEST(RemoveDoubleQuotes, DeletesThemAnywhere) {
    char text[] = "\"a\"b\"\"c\"";
    remove_double_quotes(text);
    EXPECT_STREQ(text, "abc");
}

TEST(ParseNumber, ReadsWhatATextBeginsWith) {
    EXPECT_EQ(parse_number("42"), 42);
    EXPECT_EQ(parse_number("  -7 of nine"), -7);
    EXPECT_EQ(parse_number("+3"), 3);
    EXPECT_EQ(parse_number("010"), 10);
    EXPECT_EQ(parse_number("0x10"), 0);
    EXPECT_EQ(parse_number("ten"), 0);
    EXPECT_EQ(parse_number(""), 0);
}

TEST(ParseNumber, SaturatesAt32Bits) {
    EXPECT_EQ(parse_number("2147483647"), 2147483647);
    EXPECT_EQ(parse_number("2147483648"), 2147483647);
    EXPECT_EQ(parse_number("-2147483648"), -2147483647 - 1);
    EXPECT_EQ(parse_number("-2147483649"), -2147483647 - 1);
    EXPECT_EQ(parse_number("4294967297"), 2147483647);
    EXPECT_EQ(parse_number("99999999999999999999999"), 2147483647);
    EXPECT_EQ(parse_number("-99999999999999999999999"), -2147483647 - 1);
}

TEST(LittleEndian, LowByteFirstAtAnyAddress) {
    std::array<uint8_t, 8> bytes{};
    put_u32(bytes.data() + 1, 0x12345678);
    EXPECT_EQ(bytes, (std::array<uint8_t, 8>{0, 0x78, 0x56, 0x34, 0x12, 0, 0, 0}));
    EXPECT_EQ(get_u32(bytes.data() + 1), 0x12345678U);
    put_u16(bytes.data() + 5, 0xFFEE);
    EXPECT_EQ(bytes[5], 0xEE);
    EXPECT_EQ(bytes[6], 0xFF);
    EXPECT_EQ(get_u16(bytes.data() + 5), 0xFFEE);
    put_u32(bytes.data(), 0xFFFFFFFFU);
    EXPECT_EQ(get_u32(bytes.data()), 0xFFFFFFFFU);
}

TEST(ShellWord, LeavesPlainValuesAlone) {
    for (const char *plain :
         {"", "192.168.1.100", "a-b_c/d:e,f@g%h+i=j", "\"10.0.0.1\"", "\"\"", "Fritz\xC3\xA4"}) {
        EXPECT_EQ(shell_word(plain), plain);
    }
}

TEST(ShellWord, QuotesWhatTheShellWouldInterpret) {
    EXPECT_EQ(shell_word("a b"), "'a b'");
    EXPECT_EQ(shell_word("$(reboot)"), "'$(reboot)'");
    EXPECT_EQ(shell_word("it's"), R"('it'\''s')");
    EXPECT_EQ(shell_word("\""), "'\"'");
    EXPECT_EQ(shell_word("\"a\" \"b\""), "'\"a\" \"b\"'");
    EXPECT_EQ(shell_word("~"), "'~'");
    EXPECT_EQ(shell_word("*"), "'*'");
    EXPECT_EQ(shell_word("a\nb"), "'a\nb'");
}

TEST(ShellWord, IsNeverCutAndAlwaysClosed) {
    const std::string plain(5000, 'a');
    EXPECT_EQ(shell_word(plain.c_str()), plain);
    EXPECT_EQ(shell_word(('"' + plain + '"').c_str()), '"' + plain + '"');
    EXPECT_EQ(shell_word(('$' + plain).c_str()), "'$" + plain + "'");
    EXPECT_EQ(shell_word(('"' + plain).c_str()), "'\"" + plain + "'");
    EXPECT_EQ(shell_word("''"), R"(''\'''\''')");
}

// What a real shell makes of one argument.
static std::string argument_of(const std::string &word) {
    return shell_output(("printf '%s|' " + word).c_str(), 10000);
}

static std::string all_characters() {
    std::string text;
    for (int c = 1; c < 256; ++c) {
        text += static_cast<char>(c);
    }
    return text;
}

TEST(ShellWord, IsOneArgumentForTheShell) {
    for (const char *value : {"a b", "$(echo x)", "it's", "\"", "`id`", "a;b", "\\", "a\tb", "*",
                              "'", "#", "!x", "&", "<x", "{a,b}"}) {
        EXPECT_EQ(argument_of(shell_word(value)), std::string(value) + "|");
    }
    const std::string all = all_characters();
    EXPECT_EQ(argument_of(shell_word(all.c_str())), all + "|");
    // Bare: no character above 127 is special.
    const std::string high = all.substr(127);
    EXPECT_EQ(shell_word(high.c_str()), high);
    EXPECT_EQ(argument_of(high), high + "|");
}

TEST(ShellWord, LosesOnePairOfDoubleQuotesAroundAPlainValue) {
    EXPECT_EQ(argument_of(shell_word("\"10.0.0.1\"")), "10.0.0.1|");
    EXPECT_EQ(argument_of(shell_word("\"\"")), "|");
    EXPECT_EQ(argument_of(shell_word("\"a b\"")), "\"a b\"|");
    EXPECT_EQ(argument_of(shell_word("\"\"a\"\"")), "\"\"a\"\"|");
}

#ifndef __SANITIZE_THREAD__ // it would rightly report that the text changes while it is read
TEST(ShellWord, IsInertWhileItsValueChanges) {
    // So long that its first character changes while the rest is being read.
    std::string value(20000, 'a');
    std::atomic<bool> is_done = false;
    std::thread writer([&] {
        volatile char &first = value[0];
        while (!is_done) {
            first = first == 'a' ? '$' : 'a';
        }
    });
    char start = 'a';
    for (int i = 0; i < 400 && start != '$'; ++i) {
        start = shell_word(value.c_str())[0];
    }
    is_done = true;
    writer.join();
    EXPECT_NE(start, '$');
}
#endif

TEST(Ipv4, PacksHostAndPort) {
    char text[ipv4_text_size];
    const Ipv4Port address = ipv4_port("192.168.1.254", 65535);
    EXPECT_EQ(address, 0xC0A801FEFFFFULL);
    EXPECT_EQ(port_of(address), 65535);
    EXPECT_STREQ(host_text(address, text), "192.168.1.254");
    EXPECT_EQ(from_socket_address(socket_address(address)), address);
    EXPECT_STREQ(host_text(ipv4_port("255.255.255.255", 1), text), "255.255.255.255");
}

TEST(Ipv4, RefusesWhatIsNoAddress) {
    EXPECT_EQ(ipv4_port("example", 80), 0U);
    EXPECT_EQ(ipv4_port("", 80), 0U);
    EXPECT_EQ(ipv4_port("1.2.3.4.5", 80), 0U);
    EXPECT_EQ(ipv4_port("1.2.3.400", 80), 0U);
}

TEST(ParseHexadecimal, TakesThePrefixOrNot) {
    EXPECT_EQ(parse_hexadecimal("12000a"), 0x12000A);
    EXPECT_EQ(parse_hexadecimal("0x1f"), 31);
    EXPECT_EQ(parse_hexadecimal("zz"), 0);
    EXPECT_EQ(parse_hexadecimal("ffffffff"), 2147483647);
}

TEST(ShellQuotedText, EscapesWhatCountsInsideDoubleQuotes) {
    EXPECT_EQ(shell_quoted_text("PAL 4:3"), "PAL 4:3");
    EXPECT_EQ(shell_quoted_text("$(x)`y`\"\\"), R"(\$(x)\`y\`\"\\)");
    EXPECT_EQ(shell_quoted_text(""), "");
    const std::string plain(5000, 'a');
    EXPECT_EQ(shell_quoted_text(plain.c_str()), plain);
    const std::string all = all_characters();
    EXPECT_EQ(argument_of('"' + shell_quoted_text(all.c_str()) + '"'), all + "|");
}

TEST(ShellOutput, IsReadWholeUpToTheLimit) {
    EXPECT_EQ(shell_output("printf abc; sleep 0.05; printf def", 100), "abcdef");
    EXPECT_EQ(shell_output("printf abcdef", 3), "abc");
    EXPECT_EQ(shell_output("head -c 50000 /dev/zero | tr '\\0' x", 100000).size(), 50000U);
    EXPECT_EQ(shell_output("yes", 5000).size(), 5000U);
    EXPECT_EQ(shell_output("printf 'abc\\0def'", 100), "abc");
    EXPECT_EQ(shell_output("exit 3", 100), "");
}
