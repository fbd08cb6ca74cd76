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

#ifndef __SANITIZE_THREAD__ // which would rightly call it a race
// Numbers of shared memory have no lock: who looks must find the old one or the new one.
[[gnu::noipa]] static void write_both(uint8_t *at, uint32_t value) {
    put_u16(at, static_cast<uint16_t>(value));
    put_u32(at + 4, value);
}

[[gnu::noipa]] static bool is_half(const uint8_t *at) {
    const uint16_t short_number = get_u16(at);
    const uint32_t number = get_u32(at + 4);
    return (short_number != 0 && short_number != 0xFFFF) || (number != 0 && number != 0xFFFFFFFFU);
}

TEST(LittleEndian, NobodySeesHalfOfANumber) {
    alignas(8) static uint8_t shared[8];
    static std::atomic<bool> writes;
    static std::atomic<bool> done;
    std::thread writer([] {
        writes = true;
        for (uint32_t i = 0; !done; ++i) {
            write_both(shared, -(i & 1));
        }
    });
    while (!writes) {
    }
    int halves = 0;
    for (int i = 0; i < 10000000; ++i) {
        halves += is_half(shared) ? 1 : 0;
    }
    done = true;
    writer.join();
    EXPECT_EQ(halves, 0);
}
#endif

static std::string word_of(const char *value, size_t size = 200) {
    std::string word(size, 'x');
    return shell_word(word.data(), size, value);
}

TEST(ShellWord, LeavesPlainValuesAlone) {
    for (const char *plain :
         {"", "192.168.1.100", "a-b_c/d:e,f@g%h+i=j", "\"10.0.0.1\"", "\"\"", "Fritz\xC3\xA4"}) {
        EXPECT_EQ(word_of(plain), plain);
    }
}

TEST(ShellWord, QuotesWhatTheShellWouldInterpret) {
    EXPECT_EQ(word_of("a b"), "'a b'");
    EXPECT_EQ(word_of("$(reboot)"), "'$(reboot)'");
    EXPECT_EQ(word_of("it's"), R"('it'\''s')");
    EXPECT_EQ(word_of("\""), "'\"'");
    EXPECT_EQ(word_of("\"a\" \"b\""), "'\"a\" \"b\"'");
    EXPECT_EQ(word_of("~"), "'~'");
    EXPECT_EQ(word_of("*"), "'*'");
    EXPECT_EQ(word_of("a\nb"), "'a\nb'");
}

TEST(ShellWord, StaysWithinItsBuffer) {
    EXPECT_EQ(word_of("abcdef", 4), "abc");
    EXPECT_EQ(word_of("a b c d", 5), "'a b");
    EXPECT_EQ(word_of("''''", 6), R"(''\'')");
}

// The quoted word is read back by a real shell.
TEST(ShellWord, IsOneArgumentForTheShell) {
    for (const char *value : {"a b", "$(echo x)", "it's", "\"", "`id`", "a;b", "\\", "a\tb", "*",
                              "'", "#", "!x", "&", "<x", "{a,b}"}) {
        const std::string command = "printf '%s|' " + word_of(value);
        FILE *pipe = popen(command.c_str(), "re");
        ASSERT_NE(pipe, nullptr);
        char output[100] = "";
        const size_t length = fread(output, 1, sizeof output - 1, pipe);
        pclose(pipe);
        EXPECT_EQ(std::string(output, length), std::string(value) + "|");
    }
}

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
    char text[100];
    EXPECT_STREQ(shell_quoted_text(text, sizeof text, "PAL 4:3"), "PAL 4:3");
    EXPECT_STREQ(shell_quoted_text(text, sizeof text, "$(x)`y`\"\\"), "\\$(x)\\`y\\`\\\"\\\\");
    EXPECT_STREQ(shell_quoted_text(text, sizeof text, ""), "");
    EXPECT_STREQ(shell_quoted_text(text, 4, "abcdef"), "abc");
}

TEST(ShellOutput, IsReadWholeUpToTheLimit) {
    EXPECT_EQ(shell_output("printf abc; sleep 0.05; printf def", 100), "abcdef");
    EXPECT_EQ(shell_output("printf abcdef", 3), "abc");
    EXPECT_EQ(shell_output("head -c 50000 /dev/zero | tr '\\0' x", 100000).size(), 50000U);
    EXPECT_EQ(shell_output("yes", 5000).size(), 5000U);
    EXPECT_EQ(shell_output("printf 'abc\\0def'", 100), "abc");
    EXPECT_EQ(shell_output("exit 3", 100), "");
}
