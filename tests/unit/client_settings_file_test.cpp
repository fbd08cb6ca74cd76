// What an edited settings file is told.
#include "client/settings_file.h"
#include "config/config_keys.h"

#include <fstream>
#include <gtest/gtest.h>
#include <iterator>

TEST(SettingsFile, KeysAreThoseOfTheDaemon) {
    ASSERT_EQ(stored_keys().size(), config_key_count);
    for (size_t i = 0; i < config_key_count; ++i) {
        const ConfigKey &row = config_keys[i];
        const StoredKey &known = stored_keys()[i];
        EXPECT_STREQ(known.key, row.key);
        EXPECT_EQ(static_cast<int>(known.kind), static_cast<int>(row.kind)) << row.key;
        if (row.kind == SettingKind::text) {
            EXPECT_EQ(known.size, row.text_size - 1) << row.key;
            EXPECT_EQ(known.quotes_removed, row.quotes_removed) << row.key;
        }
    }
}

static std::string packaged() {
    std::ifstream file(DOCS_FOLDER "/../packaging/quillorbeacon.conf");
    return {std::istreambuf_iterator<char>(file), {}};
}

// The remarks about lines that are put before the packaged file.
static std::vector<std::string> remarks(const std::string &lines) {
    std::vector<std::string> texts;
    for (const FileRemark &each : check_settings_file(lines + "\n" + packaged())) {
        if (each.text.find("was set in line") == std::string::npos) {
            texts.push_back(std::to_string(each.line) + ": " + each.text);
        }
    }
    return texts;
}

using Texts = std::vector<std::string>;

TEST(SettingsFile, ThePackagedOneIsReadAsItStands) {
    EXPECT_EQ(remarks(""), Texts{});
}

TEST(SettingsFile, WhatIsNotReadAsItWasMeant) {
    EXPECT_EQ(remarks("\xEF\xBB\xBFno setting\r"), Texts{"1: \"no setting\" is no setting"});
    EXPECT_EQ(remarks("# c\n; c\n\nap_sid=\"x\""), Texts{"4: there is no setting \"ap_sid\""});
    EXPECT_EQ(remarks("ap_channel=six"),
              Texts{"1: ap_channel: \"six\" is no number, and is read as 0"});
    EXPECT_EQ(remarks("ap_channel : 6x"), Texts{"1: ap_channel: \"6x\" is read as 6"});
    EXPECT_EQ(remarks("ap_channel=99999999999"),
              Texts{"1: ap_channel: \"99999999999\" is out of range"});
    EXPECT_EQ(remarks("app_type=300"), Texts{"1: app_type: \"300\" is read as 44"});
    EXPECT_EQ(remarks("system_country=GERMANY"),
              Texts{"1: system_country: \"GERMANY\" is cut to 4 bytes"});
    EXPECT_EQ(remarks("recording_place=7"),
              Texts{"1: recording_place takes 0 (auto), 1 (internal) or 2 (external), not \"7\""});
    EXPECT_EQ(remarks("ap_psk=\"good ;morning\""),
              Texts{"1: ap_psk: from \" ;\" on it is read as a comment"});
    EXPECT_EQ(remarks("ap_channel=6 ; a comment"), Texts{});
    EXPECT_EQ(remarks("device_name=\"" + std::string(38, 'x') + "\""), Texts{});
    EXPECT_EQ(remarks("device_name=\"" + std::string(39, 'x') + "\""),
              Texts{"1: device_name: \"" + std::string(39, 'x') + "\" is cut to 38 bytes"});
    EXPECT_EQ(remarks("#" + std::string(9999, 'x')),
              Texts{"1: the line is longer than 9999 bytes: the rest is read as another line"});
}

TEST(SettingsFile, WhatIsNotReadAtAll) {
    const auto found = check_settings_file("ap_channel=6\n[more]\nap_ssid=\"x\"\nap_channel=7\n");
    ASSERT_EQ(found.size(), 3U);
    EXPECT_EQ(found[0].text, "ap_ssid is below a [section], and is not read");
    EXPECT_EQ(found[1].line, 4U);
    EXPECT_EQ(found[2].line, 0U);
    EXPECT_NE(found[2].text.find("not set, so 0 or empty: app_type, "), std::string::npos);
    const auto twice = check_settings_file("ap_channel=6\nap_channel=7\n");
    EXPECT_EQ(twice[0].text, "ap_channel was set in line 1; this one counts");
}
