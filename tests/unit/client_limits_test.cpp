// The allowed values of every setting, and how a word is compared with them.
#include "client/setting_limits.h"
#include "client/setting_rows.h"
#include "client/status_words.h"
#include "client/value_check.h"

#include <fstream>
#include <gtest/gtest.h>
#include <set>

using Words = std::vector<std::string>;

static bool is_allowed(const char *key, const std::string &value) {
    const SettingLimit *limit = setting_limit(key);
    EXPECT_NE(limit, nullptr) << key;
    return limit != nullptr && is_allowed(*limit, value);
}

static std::string value_of(const char *key, const std::string &word) {
    return value_of_word(*setting_limit(key), word);
}

static void expect_only(const char *key, const Words &allowed, const Words &refused) {
    for (const std::string &value : allowed) {
        EXPECT_TRUE(is_allowed(key, value)) << key << " \"" << value << '"';
    }
    for (const std::string &value : refused) {
        EXPECT_FALSE(is_allowed(key, value)) << key << " \"" << value << '"';
    }
}

TEST(SettingLimits, EveryFieldHasOneAndNoOther) {
    std::set<std::string> fields;
    std::set<std::string> limited;
    for (const SettingRow &row : setting_rows()) {
        for (const SettingField &field : row.fields) {
            fields.insert(field.key);
        }
    }
    for (const SettingLimit &limit : setting_limits()) {
        EXPECT_TRUE(limited.insert(limit.key).second) << limit.key;
    }
    EXPECT_EQ(limited, fields);
    EXPECT_EQ(setting_limit("nope"), nullptr);
}

TEST(SettingLimits, FitTheTypesOfTheRows) {
    for (const SettingRow &row : setting_rows()) {
        for (const SettingField &field : row.fields) {
            const SettingLimit *limit = setting_limit(field.key);
            ASSERT_NE(limit, nullptr) << field.key;
            EXPECT_EQ(limit->kind == ValueKind::flag, field.type == SettingType::flag) << field.key;
            EXPECT_EQ(is_allowed(*limit, ""), field.type == SettingType::text &&
                                                  std::string(field.key) != "standard" &&
                                                  std::string(field.key) != "aspect")
                << field.key;
            EXPECT_STRNE(limit->help, "") << field.key;
            EXPECT_NE(allowed_values(*limit), "") << field.key;
        }
    }
}

TEST(SettingLimits, NumbersAndChoices) {
    expect_only("display_hflip", {"0", "1"}, {"2", "", "on", "01"});
    expect_only("stream_udp_blocksize", {"0", "1", "65507"},
                {"65508", "-1", "", "1x", " 1", "1e3"});
    expect_only("recording_gpio", {"0", "53"}, {"54", "-1"});
    expect_only("recording_place", {"0", "1", "2"}, {"3", "", "auto"});
    expect_only("ap_iface", {"int", "ext", ""}, {"internal", "wlan0"});
    expect_only("ap_channel", {"0", "1", "14", "36", "64", "100", "144", "149", "177"},
                {"15", "37", "65", "96", "148", "150", "181", "-1", ""});
    for (int type = 0; type < 16; ++type) {
        const auto &choice = setting_limit("app_type")->choices[static_cast<size_t>(type)];
        EXPECT_EQ(choice.value, std::to_string(type));
        EXPECT_EQ(choice.label, app_type_text(type));
    }
    expect_only("app_type", {"0", "15"}, {"16", "256", "-1"});
}

TEST(SettingLimits, Addresses) {
    expect_only("eth_static_ip", {"192.168.1.100", "10.0.0.1", ""},
                {"10.1", "10.0.0.256", "10.0.0.1.2", "10.0.0.01", "0.0.0.0", "127.0.0.1",
                 "224.0.0.1", "255.255.255.255", "a.b.c.d", "10.0.0.1 ", "10.0.0."});
    expect_only("eth_static_mask", {"255.255.255.0", "255.255.255.255", "128.0.0.0", ""},
                {"255.0.255.0", "0.0.0.0", "24", "255.255.255.1"});
    expect_only("stream_udp_clients",
                {"", "10.0.0.1:5600", "10.0.0.1:1,10.0.0.2:65535", "10.0.0.1:1, 10.0.0.2:2"},
                {"10.0.0.1", "10.0.0.1:0", "10.0.0.1:65536", "host:1", "10.0.0.1:1,",
                 "10.0.0.1:1;10.0.0.2:2", "10.0.0.1:1:2"});
    std::string ten = "10.0.0.1:1";
    for (int i = 1; i < 10; ++i) {
        ten += ",10.0.0.1:1";
    }
    expect_only("stream_udp_clients", {ten}, {ten + ",10.0.0.1:1"});
}

TEST(SettingLimits, Texts) {
    expect_only("device_name", {"", "Roof camera", std::string(38, 'x'), "a;b", "50 %", "Dach-Süd"},
                {std::string(39, 'x'), "a\"b", "a ;b", "a\nb", "a\tb"});
    expect_only("ap_psk", {"", "12345678", std::string(38, 'x')},
                {"1234567", std::string(39, 'x')});
    expect_only("ap_ssid", {std::string(32, 'x')}, {std::string(33, 'x')});
    expect_only("ap_country", {"", "DE"}, {"de", "D", "DEU", "D1"});
    expect_only("rc1_mode", {"", "sbus", "x-bus_2.0"}, {"s bus", "a;b", std::string(30, 'x')});
    expect_only("stream_rtmp_url", {"", "rtmp://a/b", "rtmps://a/b?c=1"},
                {"http://a", "rtmp:/a", "rtmp://", "rtmps://", "rtmp://a b", "a", "://a"});
    expect_only("stream_srt_url", {"srt://:9000?mode=listener"},
                {"rtmp://a", "srt//a", "srts://a", "://a"});
    expect_only("zerotier_netid", {"", "8056c2e21c000001"}, {"8056c2", "8056c2e21c00000g"});
}

TEST(SettingLimits, Movements) {
    std::string many = "1,2,3,,,,,,,";
    for (int i = 1; i < 20; ++i) {
        many += ";1,2,3,,,,,,,";
    }
    expect_only(
        "automove_list",
        {"", "-30,0,0,,,,,2,1,;30,0,0,,,,,2,1,", "10,5,0,2,-3,0.5,.5,3,1,100,1", many, many + ";"},
        {"1,2,3", "1,2,3,4,5,6,7,8,9,10,11,12", "1,2,3,9,,,,,,", "1,2,3,,4,,,,,", "1,2,3,,,2,,,,",
         "1,2,3,,,,,-1,,", "a,2,3,,,,,,,", "nan,2,3,,,,,,,", many + ";1,2,3,,,,,,,", ";"});
}

TEST(SettingLimits, WordsForValues) {
    EXPECT_EQ(value_of("display_hflip", "on"), "1");
    EXPECT_EQ(value_of("display_hflip", "no"), "0");
    EXPECT_EQ(value_of("display_hflip", "maybe"), "maybe");
    EXPECT_EQ(value_of("recording_place", "External"), "2");
    EXPECT_EQ(value_of("recording_place", "2"), "2");
    EXPECT_EQ(value_of("ap_iface", "none"), "");
    EXPECT_EQ(value_of("ap_mode", "5ghz"), "5");
    EXPECT_EQ(value_of("rc1_mode", "SBUS"), "sbus");
    EXPECT_EQ(value_of("ap_country", "de"), "DE");
    EXPECT_EQ(value_of("ap_ssid", "on"), "on");
}

TEST(SettingLimits, AreSaidInWords) {
    const auto said = [](const char *key) { return allowed_values(*setting_limit(key)); };
    EXPECT_EQ(said("recording_place"), "0 (auto), 1 (internal) or 2 (external)");
    EXPECT_EQ(said("ap_iface"), "int (internal), ext (external) or \"\" (none)");
    EXPECT_EQ(said("aspect"), "4:3, 14:9 or 16:9");
    EXPECT_EQ(said("automove_smooth_speed"), "a number from 0 to 6");
    EXPECT_EQ(said("ap_psk"),
              "nothing, or 8 to 38 bytes without \", line breaks or blanks before ;");
    EXPECT_EQ(said("rc1_mode"),
              "at most 29 letters, digits or ._-, such as sbus, ibus, crsf or ppm");
}

TEST(SettingLimits, AreInTheDocument) {
    std::ifstream document(DOCS_FOLDER "/settings.md");
    std::set<std::string> told;
    for (std::string line; std::getline(document, line);) {
        told.insert(line);
    }
    for (const SettingRow &row : setting_rows()) {
        for (const SettingField &field : row.fields) {
            const std::string line =
                "- `" + std::string(field.key) + "`: " + allowed_values(*setting_limit(field.key));
            EXPECT_TRUE(row.section == nullptr || told.contains(line)) << line;
        }
    }
}

// The conflicts' texts for values of a row, of which those that are not named are empty or 0.
static Words conflicts(std::string_view param, const Words &named) {
    for (const SettingRow &row : setting_rows()) {
        if (param != row.param && (row.sub == nullptr || param != row.sub)) {
            continue;
        }
        Words values;
        for (const SettingField &field : row.fields) {
            std::string value = field.type == SettingType::text ? "" : "0";
            for (const std::string &word : named) {
                const std::string name = std::string(field.key) + "=";
                value = word.starts_with(name) ? word.substr(name.size()) : value;
            }
            values.push_back(value);
        }
        Words texts;
        for (const ValueConflict &each : conflicts_in(row, values)) {
            texts.push_back(each.text);
        }
        return texts;
    }
    ADD_FAILURE() << param;
    return {};
}

TEST(SettingLimits, ValuesThatDoNotGoTogether) {
    EXPECT_EQ(conflicts("wlan", {}), Words{});
    EXPECT_EQ(conflicts("wlan", {"ap_mode=2", "ap_channel=36"}),
              Words{"ap_channel 36 is not a channel of 2.4 GHz (1 to 14)"});
    EXPECT_EQ(conflicts("wlan", {"ap_mode=5", "ap_channel=36"}), Words{});
    EXPECT_EQ(conflicts("wlan", {"ap_iface=int", "ap_ssid=a"}),
              (Words{"ap_iface=int needs ap_mode", "ap_iface=int needs ap_channel"}));
    EXPECT_EQ(conflicts("ethernet", {"eth_static_ip_enabled=1"}),
              Words{"eth_static_ip_enabled=1 needs eth_static_ip"});
    EXPECT_EQ(conflicts("udp", {"stream_udp_enabled=1", "stream_udp_clients=10.0.0.1:1"}),
              Words{"stream_udp_enabled=1 needs stream_udp_blocksize"});
    EXPECT_EQ(conflicts("hdmi", {"group=CEA"}),
              Words{"group and mode are given together, or neither"});
    EXPECT_EQ(conflicts("hdmi", {"group=CEA", "mode=16"}), Words{});
    EXPECT_EQ(conflicts("cvbs", {"standard=PAL"}), Words{});
}
