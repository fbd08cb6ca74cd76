#include "config/writer.h"

#include "config/config_keys.h"
#include "config/loader.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <string>
#include <unistd.h>

static std::string without_carriage_returns(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
    return text;
}

// Writes the text as the run-time copy and loads it.
static const ConfigRecord &reload(const std::string &text) {
    const std::string path = ::testing::TempDir() + "reload-" + std::to_string(getpid());
    FILE *file = fopen(path.c_str(), "we");
    fwrite(text.data(), 1, text.size(), file);
    fclose(file);
    EXPECT_EQ(load_config(path.c_str()), 0);
    unlink(path.c_str());
    return config_record();
}

TEST(ConfigFile, EveryLineEndsInCrLf) {
    const std::string text = config_file_text(config_record());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\n') {
            ASSERT_TRUE(i > 0 && text[i - 1] == '\r') << i;
        }
    }
    EXPECT_EQ(text.rfind("# Quillorbeacon NG config file\r\n\r\n# Application type\r\n", 0), 0U);
    EXPECT_EQ(text.substr(text.size() - 19), "zerotier_netid=\r\n\r\n");
}

TEST(ConfigFile, NineteenCommentLinesEndInABlank) {
    const std::string text = config_file_text(config_record());
    int count = 0;
    for (size_t at = text.find(" \r\n"); at != std::string::npos; at = text.find(" \r\n", at + 1)) {
        ++count;
    }
    EXPECT_EQ(count, 19);
}

// Text that survives in a file: no line ends, no blanks at its ends, no " ;" inside, and nothing
// that the parser would interpret.
static std::string random_text(std::mt19937 &random, size_t limit) {
    std::uniform_int_distribution<size_t> lengths(0, limit);
    // Small lengths and the maximum are frequent.
    const size_t kinds[] = {lengths(random), lengths(random) % 8, limit, 0};
    const size_t length = kinds[random() % 4];
    std::string text;
    while (text.size() < length) {
        const char choices[] = {'%', 'n',    's',    ' ', ',', ':', '=', '\'', '\\', '#',
                                '$', '\xC3', '\xFF', '[', ']', 'a', '0', '.',  '\t', '"'};
        text += choices[random() % std::size(choices)];
    }
    while (!text.empty() && isspace(static_cast<unsigned char>(text.front())) != 0) {
        text.front() = 'x';
    }
    while (!text.empty() && isspace(static_cast<unsigned char>(text.back())) != 0) {
        text.back() = 'x';
    }
    return text;
}

// A text as read back after it was written in quotes, unquoted or bare.
static std::string reloaded(std::string text, const ConfigKey &row) {
    if (row.quotes_written) {
        text = "\"" + text + "\"";
    }
    text = text.substr(0, row.text_size - 1);
    if (row.quotes_removed) {
        text.erase(std::remove(text.begin(), text.end(), '"'), text.end());
    }
    return text.empty() && row.when_empty != nullptr ? row.when_empty : text;
}

TEST(ConfigFile, SavingAndLoadingKeepsEveryKey) {
    std::mt19937 random(20261121);
    for (int round = 0; round < 300; ++round) {
        const auto written = std::make_unique<ConfigRecord>();
        std::vector<std::string> texts;
        std::vector<int32_t> numbers;
        for (const ConfigKey &row : config_keys) {
            // A channel map and its key must fit in the longest line.
            const size_t limit = std::min<size_t>(row.text_size, 9980) - 1;
            const std::string text =
                row.kind == SettingKind::text ? random_text(random, limit) : "";
            const int32_t extremes[] = {
                static_cast<int32_t>(random()), 0, 2147483647, -2147483647 - 1, 255, 256};
            const int32_t number = extremes[random() % std::size(extremes)];
            texts.push_back(text);
            numbers.push_back(number);
            change_setting(*written, row.key,
                           row.kind == SettingKind::text ? text.c_str()
                                                         : std::to_string(number).c_str());
        }
        const ConfigRecord &read = reload(without_carriage_returns(config_file_text(*written)));
        for (size_t i = 0; i < config_key_count; ++i) {
            const ConfigKey &row = config_keys[i];
            SCOPED_TRACE(row.key);
            switch (row.kind) {
            case SettingKind::number:
                EXPECT_EQ(read.*row.number, numbers[i]);
                break;
            case SettingKind::byte:
                EXPECT_EQ(read.*row.byte, static_cast<uint8_t>(numbers[i]));
                break;
            case SettingKind::flag:
                EXPECT_EQ(read.*row.byte, numbers[i] != 0 ? 1 : 0);
                break;
            case SettingKind::text:
                EXPECT_EQ(text_field(read, row), reloaded(texts[i], row));
                break;
            }
        }
        if (::testing::Test::HasFailure()) {
            FAIL() << "in round " << round;
        }
    }
}

TEST(ChangeSetting, CutsATextAtItsFirstLineEnd) {
    ConfigRecord &record = config_record();
    change_setting(record, "ap_ssid", "net\r\nfs_rw=1");
    EXPECT_STREQ(record.ap_ssid, "net");
    change_setting(record, "ap_ssid", "net\nfs_rw=1");
    EXPECT_STREQ(record.ap_ssid, "net");
    change_setting(record, "ap_ssid", "\n");
    EXPECT_STREQ(record.ap_ssid, "");
}

TEST(ChangeSetting, KeepsQuotesAndPercentSigns) {
    ConfigRecord &record = config_record();
    change_setting(record, "ap_ssid", "\"%n%s\"");
    EXPECT_STREQ(record.ap_ssid, "\"%n%s\"");
}

TEST(ChangeSetting, GivesAnEmptyMaskItsDefault) {
    ConfigRecord &record = config_record();
    change_setting(record, "eth_static_mask", "");
    EXPECT_STREQ(record.eth_static_mask, "255.255.255.0");
    change_setting(record, "wifi_static_mask", "\n1");
    EXPECT_STREQ(record.wifi_static_mask, "255.255.255.0");
}

TEST(ChangeSetting, IgnoresAnUnknownKey) {
    ConfigRecord &record = config_record();
    const std::string before = config_file_text(record);
    change_setting(record, "ap_ssid ", "net");
    change_setting(record, "", "net");
    EXPECT_EQ(config_file_text(record), before);
}
