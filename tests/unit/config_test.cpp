#include "config/loader.h"

#include "base/ipv4.h"
#include "config/config_keys.h"
#include "config/restream_clients.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <unistd.h>

// A configuration file with `text`, removed at the end of the test.
class Loader : public ::testing::Test {
protected:
    Loader() {
        path_ = ::testing::TempDir() + "config-XXXXXX";
        close(mkstemp(path_.data()));
    }
    ~Loader() override {
        unlink(path_.c_str());
    }

    const ConfigRecord &load(const std::string &text) {
        FILE *file = fopen(path_.c_str(), "we");
        fwrite(text.data(), 1, text.size(), file);
        fclose(file);
        result_ = load_config(path_.c_str());
        return config_record();
    }

    std::string path_;
    int result_ = -2;
};

static bool is_all_zero(const ConfigRecord &record) {
    const auto *bytes = reinterpret_cast<const unsigned char *>(&record);
    return std::all_of(bytes, bytes + sizeof record, [](unsigned char b) { return b == 0; });
}

TEST_F(Loader, FailsWithoutTheFileAndZeroesTheRecord) {
    load("app_type=3\n");
    EXPECT_EQ(load_config("/nonexistent/config.conf"), -1);
    EXPECT_TRUE(is_all_zero(config_record()));
}

TEST_F(Loader, TakesAnEmptyFileAndOneOfCommentsOnly) {
    EXPECT_TRUE(is_all_zero(load("")));
    EXPECT_EQ(result_, 0);
    EXPECT_TRUE(is_all_zero(load("# a comment\n; another\n\n   \n# app_type=3\n")));
    EXPECT_EQ(result_, 0);
}

TEST_F(Loader, ForgetsTheLoadBefore) {
    load("app_type=3\ndevice_name=x\nstream_udp_clients=1.2.3.4:5\n");
    EXPECT_TRUE(is_all_zero(load("")));
}

// What the table says about a key, found without the loader.
static const ConfigKey &row_of(const char *key) {
    return *std::find_if(std::begin(config_keys), std::end(config_keys),
                         [&](const ConfigKey &row) { return strcmp(row.key, key) == 0; });
}

static std::string text_of(const char *key) {
    return reinterpret_cast<const char *>(&config_record()) + row_of(key).text_offset;
}

// Written by hand, independently of the table: every text key, its field and whether it loses
// quotes.
struct ExpectedText {
    const char *key;
    size_t size;
    bool removes_quotes;
};
constexpr ExpectedText expected_texts[] = {
    {"device_name", 40, true},
    {"system_country", 5, true},
    {"eth_static_ip", 20, false},
    {"eth_static_mask", 20, false},
    {"ap_iface", 10, true},
    {"ap_ssid", 40, true},
    {"ap_psk", 40, true},
    {"ap_country", 5, true},
    {"wifi_iface", 10, true},
    {"wifi_ssid", 40, true},
    {"wifi_psk", 40, true},
    {"wifi_static_ip", 20, false},
    {"wifi_static_mask", 20, false},
    {"camera_iface", 10, true},
    {"camera_ssid", 40, true},
    {"camera_psk", 40, true},
    {"internal_camera_params", 100, true},
    {"stream_udp_clients", 1000, false},
    {"stream_rtmp_url", 1000, true},
    {"stream_rtmp_key", 1000, true},
    {"stream2_rtmp_url", 1000, true},
    {"stream2_rtmp_key", 1000, true},
    {"stream_srt_url", 1000, false},
    {"rc1_mode", 30, false},
    {"rc2_mode", 30, false},
    {"rc1_channels", 10000, false},
    {"rc2_channels", 10000, false},
    {"automove_list", 1200, true},
    {"zerotier_netid", 40, false},
};

TEST_F(Loader, TextsAreCutToTheirFieldsThenLoseTheirQuotes) {
    for (const ExpectedText &expected : expected_texts) {
        SCOPED_TRACE(expected.key);
        // A quote first and last within the field: truncated first, so both still count.
        const size_t kept = std::min<size_t>(expected.size - 1, 9900);
        std::string value = "\"" + std::string(kept - 2, 'v') + "\"";
        std::string line = std::string(expected.key) + "=" + value + (kept == 9900 ? "" : "tail");
        load(line + "\n");
        EXPECT_EQ(text_of(expected.key),
                  expected.removes_quotes ? value.substr(1, kept - 2) : value);
        EXPECT_EQ(result_, 0);
    }
}

TEST_F(Loader, AQuoteBehindTheCutIsGone) {
    load("ap_ssid=\"" + std::string(39, 'a') + "\"\n");
    EXPECT_EQ(text_of("ap_ssid"), std::string(38, 'a'));
}

TEST_F(Loader, EveryNumberIs32BitsAndReadsAlikeOnAllMachines) {
    const char *const keys[] = {"ap_mode",
                                "ap_channel",
                                "internal_camera_enabled",
                                "display_enabled",
                                "display_hflip",
                                "display_vflip",
                                "display_keep_aspect",
                                "display_smooth",
                                "enable_second_hdmi",
                                "osd_enabled",
                                "osd_borders",
                                "tft_display_enabled",
                                "tft_display_model",
                                "stream_udp_enabled",
                                "stream_udp_blocksize",
                                "rtsp_server_enabled",
                                "stream_rtmp_enabled",
                                "stream2_rtmp_enabled",
                                "stream_srt_enabled",
                                "recording_enabled",
                                "transcoding_enabled",
                                "transcoding_bitrate",
                                "resize_enabled",
                                "resize_width",
                                "resize_height",
                                "audio_enabled",
                                "audio_bitrate",
                                "audio_dst",
                                "audio_autogain",
                                "audio_volume",
                                "gimbal_movement_type",
                                "rc_pan_smooth",
                                "rc_tilt_smooth",
                                "rc_roll_smooth",
                                "app_pan_smooth",
                                "app_tilt_smooth",
                                "app_roll_smooth",
                                "automove_enabled",
                                "automove_smooth",
                                "automove_smooth_speed",
                                "zerotier_enabled",
                                "zerotier_autojoin"};
    for (const char *key : keys) {
        SCOPED_TRACE(key);
        const auto value = [&](const char *text) -> int32_t {
            load(std::string(key) + "=" + text + "\n");
            return config_record().*row_of(key).number;
        };
        EXPECT_EQ(value("-123456"), -123456);
        EXPECT_EQ(value("256"), 256);
        EXPECT_EQ(value("9999999999"), 2147483647);
        EXPECT_EQ(value("-9999999999"), -2147483647 - 1);
        EXPECT_EQ(value("12abc"), 12);
        EXPECT_EQ(value("on"), 0);
    }
    EXPECT_EQ(std::size(keys), 42U);
}

TEST_F(Loader, ByteKeysKeepTheLowByte) {
    const char *const keys[] = {
        "app_type",       "eth_static_ip_enabled", "wifi_static_ip_enabled", "recording_place",
        "recording_gpio", "recording_btn_gpio",    "shot_btn_gpio",          "rc_enabled"};
    for (const char *key : keys) {
        SCOPED_TRACE(key);
        const auto value = [&](const char *text) -> int {
            load(std::string(key) + "=" + text + "\n");
            return config_record().*row_of(key).byte;
        };
        EXPECT_EQ(value("300"), 44);
        EXPECT_EQ(value("255"), 255);
        EXPECT_EQ(value("256"), 0);
        EXPECT_EQ(value("-1"), 255);
        EXPECT_EQ(value("99999999999"), 255); // the low byte of 2147483647
    }
}

TEST_F(Loader, FlagsAreOneForAnyNumberButZero) {
    for (const char *value : {"1", "5", "256", "-1", "65536", "7x"}) {
        load(std::string("fs_rw=") + value + "\nmake_preview=" + value + "\n");
        EXPECT_EQ(config_record().fs_rw, 1) << value;
        EXPECT_EQ(config_record().make_preview, 1) << value;
    }
    load("fs_rw=0\nmake_preview=yes\n");
    EXPECT_EQ(config_record().fs_rw, 0);
    EXPECT_EQ(config_record().make_preview, 0);
}

TEST(ConfigKeys, NameEachFieldOnce) {
    size_t texts = 0;
    for (const ConfigKey &row : config_keys) {
        EXPECT_EQ(&row_of(row.key), &row) << row.key << " stands twice";
        texts += row.kind == SettingKind::text ? 1 : 0;
    }
    EXPECT_EQ(texts, std::size(expected_texts));
    for (const ExpectedText &expected : expected_texts) {
        EXPECT_EQ(row_of(expected.key).text_size, expected.size) << expected.key;
    }
}

TEST_F(Loader, EachKeyFillsItsOwnFieldOnly) {
    for (const ConfigKey &row : config_keys) {
        SCOPED_TRACE(row.key);
        const bool is_text = row.kind == SettingKind::text;
        const ConfigRecord &record = load(std::string(row.key) + "=1\n");
        const auto *bytes = reinterpret_cast<const unsigned char *>(&record);
        const auto set = std::count_if(bytes, bytes + sizeof record,
                                       [](unsigned char byte) { return byte != 0; });
        EXPECT_EQ(set, 1);
        if (is_text) {
            EXPECT_EQ(text_of(row.key), "1");
        } else if (row.number != nullptr) {
            EXPECT_EQ(record.*row.number, 1);
        } else {
            EXPECT_EQ(record.*row.byte, 1);
        }
    }
}

TEST_F(Loader, AnEmptyMaskGetsItsDefaultAndAMissingOneDoesNot) {
    load("eth_static_mask=\nwifi_static_mask=\n");
    EXPECT_EQ(text_of("eth_static_mask"), "255.255.255.0");
    EXPECT_EQ(text_of("wifi_static_mask"), "255.255.255.0");
    load("eth_static_ip=1.2.3.4\n");
    EXPECT_EQ(text_of("eth_static_mask"), "");
    EXPECT_EQ(text_of("wifi_static_mask"), "");
    load("eth_static_mask=\"\"\nwifi_static_mask=\"\"\n");
    EXPECT_EQ(text_of("eth_static_mask"), "\"\"");
    EXPECT_EQ(text_of("wifi_static_mask"), "\"\"");
}

TEST_F(Loader, OtherEmptyTextsStayEmpty) {
    for (const ExpectedText &expected : expected_texts) {
        if (strstr(expected.key, "mask") == nullptr) {
            load(std::string(expected.key) + "=\n");
            EXPECT_TRUE(is_all_zero(config_record())) << expected.key;
        }
    }
    load("device_name=\"\"\n");
    EXPECT_EQ(text_of("device_name"), "");
}

TEST_F(Loader, ValuesAreNeverFormats) {
    load("device_name=\"%s%n%d\"\nstream_srt_url=%n%n%n%s\nrc1_mode=%5000d\n");
    EXPECT_EQ(text_of("device_name"), "%s%n%d");
    EXPECT_EQ(text_of("stream_srt_url"), "%n%n%n%s");
    EXPECT_EQ(text_of("rc1_mode"), "%5000d");
}

TEST_F(Loader, KeysAreComparedExactly) {
    load("App_type=3\napp_type2=3\napp_typ=3\nunknown=1\nap_mode=5\n");
    EXPECT_EQ(config_record().app_type, 0);
    EXPECT_EQ(config_record().ap_mode, 5);
    EXPECT_EQ(result_, 0);
}

TEST_F(Loader, KeysBehindASectionHeaderAreIgnored) {
    load("ap_mode=5\n[wifi]\nap_channel=6\n[]\nosd_borders=3\n");
    EXPECT_EQ(config_record().ap_mode, 5);
    EXPECT_EQ(config_record().ap_channel, 0);
    EXPECT_EQ(result_, 0);
}

TEST_F(Loader, BadLinesAreSkipped) {
    load("this is no setting\nap_mode=5\n=\n[open\nap_channel=6\n");
    EXPECT_EQ(config_record().ap_mode, 5);
    EXPECT_EQ(config_record().ap_channel, 6);
    EXPECT_EQ(result_, 0);
}

TEST_F(Loader, AColonSeparatesToo) {
    load("ap_mode: 5\nap_ssid : net\n");
    EXPECT_EQ(config_record().ap_mode, 5);
    EXPECT_EQ(text_of("ap_ssid"), "net");
}

TEST_F(Loader, CommentsBehindAValueAreDroppedAfterWhiteSpace) {
    load("ap_psk=pass ;word\nwifi_psk=pass;word\ncamera_psk=pass #word\nap_mode=5 ; GHz\n");
    EXPECT_EQ(text_of("ap_psk"), "pass");
    EXPECT_EQ(text_of("wifi_psk"), "pass;word");
    EXPECT_EQ(text_of("camera_psk"), "pass #word");
    EXPECT_EQ(config_record().ap_mode, 5);
}

TEST_F(Loader, LinesThatBeginWithABlankStandForThemselves) {
    load("ap_psk=secret\n  ap_mode=5\n\twifi_psk=other\n");
    EXPECT_EQ(text_of("ap_psk"), "secret");
    EXPECT_EQ(config_record().ap_mode, 5);
    EXPECT_EQ(text_of("wifi_psk"), "other");
}

TEST_F(Loader, AByteOrderMarkIsSkipped) {
    load("\xEF\xBB\xBF"
         "ap_mode=5\n");
    EXPECT_EQ(config_record().ap_mode, 5);
}

TEST_F(Loader, CarriageReturnsAtLineEndsAreStripped) {
    load("ap_psk=\"secret\"\r\n\r\nap_mode=5\r\n");
    EXPECT_EQ(text_of("ap_psk"), "secret");
    EXPECT_EQ(config_record().ap_mode, 5);
}

TEST_F(Loader, TheLastLineNeedsNoEnd) {
    load("ap_mode=5\nap_channel=11");
    EXPECT_EQ(config_record().ap_channel, 11);
}

TEST_F(Loader, TheLastOfTwoLinesCounts) {
    load("ap_mode=5\nap_mode=2\n");
    EXPECT_EQ(config_record().ap_mode, 2);
}

TEST_F(Loader, LinesUpToTheBufferAreReadWhole) {
    // 9998 characters fit together with the line end and the terminating zero.
    const std::string map(9998 - strlen("rc1_channels="), 'c');
    load("rc1_channels=" + map + "\nap_mode=5\n");
    EXPECT_EQ(text_of("rc1_channels"), map);
    EXPECT_EQ(config_record().ap_mode, 5);
}

TEST_F(Loader, ALongerLineIsReadInPieces) {
    const std::string map(9999 - strlen("rc1_channels="), 'c');
    load("rc1_channels=" + map + "ap_mode=5\nap_channel=6\n");
    EXPECT_EQ(text_of("rc1_channels"), map);
    EXPECT_EQ(config_record().ap_mode, 5);
    EXPECT_EQ(config_record().ap_channel, 6);
}

class RestreamList : public ::testing::Test {
protected:
    // Parses the text and keeps what was printed.
    const RestreamClients &parse(const std::string &text) {
        ::testing::internal::CaptureStderr();
        parse_restream_clients(text.c_str(), clients_);
        printed_ = ::testing::internal::GetCapturedStderr();
        return clients_;
    }

    RestreamClients clients_{};
    std::string printed_;
};

TEST_F(RestreamList, HoldsHostsAndPorts) {
    parse("192.168.1.10:5600,192.168.1.11:5601");
    EXPECT_EQ(clients_.count, 2);
    EXPECT_EQ(clients_.destinations[0], ipv4_port("192.168.1.10", 5600));
    EXPECT_EQ(clients_.destinations[1], ipv4_port("192.168.1.11", 5601));
    EXPECT_EQ(printed_, "\nRestreaming clients:\n\t0: 192.168.1.10:5600\n"
                        "\t1: 192.168.1.11:5601\n\n");
}

TEST_F(RestreamList, EndsAtTheTenthItem) {
    std::string text;
    for (int i = 1; i <= 11; ++i) {
        text += "10.0.0." + std::to_string(i) + ":7,";
    }
    parse(text);
    EXPECT_EQ(clients_.count, 10);
    EXPECT_EQ(clients_.destinations[9], ipv4_port("10.0.0.10", 7));
    EXPECT_EQ(printed_.find("10.0.0.11"), std::string::npos);
}

TEST_F(RestreamList, EndsAtAnItemWithoutAPort) {
    parse("10.0.0.1:7,10.0.0.2,10.0.0.3:7");
    EXPECT_EQ(clients_.count, 1);
    EXPECT_EQ(printed_, "\nRestreaming clients:\n\t0: 10.0.0.1:7\n\n");
    parse("10.0.0.1:7,,10.0.0.3:7");
    EXPECT_EQ(clients_.count, 1);
}

TEST_F(RestreamList, IsEmptyForAnEmptyText) {
    parse("");
    EXPECT_EQ(clients_.count, 0);
    EXPECT_EQ(printed_, "\nRestreaming clients:\n\n");
}

TEST_F(RestreamList, IsRebuiltWhole) {
    parse("10.0.0.1:7,10.0.0.2:8");
    parse("10.0.0.3:9");
    EXPECT_EQ(clients_.count, 1);
    EXPECT_EQ(clients_.destinations[0], ipv4_port("10.0.0.3", 9));
    EXPECT_EQ(clients_.destinations[1], 0U);
}

TEST_F(RestreamList, IgnoresWhatFollowsThePort) {
    parse("10.0.0.1:7:8");
    EXPECT_EQ(clients_.count, 1);
    EXPECT_EQ(clients_.destinations[0], ipv4_port("10.0.0.1", 7));
}

TEST_F(RestreamList, KeepsTheLowSixteenBitsOfAPort) {
    parse("10.0.0.1:70000,10.0.0.2:-1");
    EXPECT_EQ(clients_.count, 2);
    EXPECT_EQ(clients_.destinations[0], ipv4_port("10.0.0.1", 4464));
    EXPECT_EQ(clients_.destinations[1], ipv4_port("10.0.0.2", 65535));
    EXPECT_EQ(printed_, "\nRestreaming clients:\n\t0: 10.0.0.1:70000\n\t1: 10.0.0.2:-1\n\n");
}

TEST_F(RestreamList, TakesAnEmptyPortForPort0) {
    parse("10.0.0.1:,10.0.0.2:7");
    EXPECT_EQ(clients_.count, 2);
    EXPECT_EQ(clients_.destinations[0], ipv4_port("10.0.0.1", 0));
    EXPECT_EQ(clients_.destinations[1], ipv4_port("10.0.0.2", 7));
    EXPECT_EQ(printed_, "\nRestreaming clients:\n\t0: 10.0.0.1:0\n\t1: 10.0.0.2:7\n\n");
}

TEST_F(RestreamList, TakesBlanksAroundAHostAndShortAddresses) {
    parse("10.0.0.1:7, \t10.0.0.2 : 8, 10.3:9,0x7f.1:10");
    EXPECT_EQ(clients_.count, 4);
    EXPECT_EQ(clients_.destinations[0], ipv4_port("10.0.0.1", 7));
    EXPECT_EQ(clients_.destinations[1], ipv4_port("10.0.0.2", 8));
    EXPECT_EQ(clients_.destinations[2], ipv4_port("10.0.0.3", 9));
    EXPECT_EQ(clients_.destinations[3], ipv4_port("127.0.0.1", 10));
}

TEST_F(RestreamList, CountsAHostThatIsNoAddressWithoutADestination) {
    parse("camera-station-with-a-very-long-name:7,%n:8, 10.0.0.3:x");
    EXPECT_EQ(clients_.count, 3);
    EXPECT_EQ(clients_.destinations[0], 0U);
    EXPECT_EQ(clients_.destinations[1], 0U);
    EXPECT_EQ(clients_.destinations[2], ipv4_port("10.0.0.3", 0));
    EXPECT_EQ(printed_, "\nRestreaming clients:\n"
                        "\t0: camera-station-with-a-very-long-name:7\n\t1: %n:8\n"
                        "\t2:  10.0.0.3:0\n\n");
}

TEST_F(RestreamList, RefusesTheDaemonsOwnPortsOnThisBoard) {
    parse("127.0.0.1:5000,127.9.9.9:5001,0.0.0.0:5003,255.255.255.255:5252,192.0.2.1:5252,"
          "127.0.0.1:5002");
    EXPECT_EQ(clients_.count, 6);
    for (int i = 0; i < 6; ++i) {
        EXPECT_NE(clients_.addresses[i], 0U) << i;
        const Ipv4Port expected =
            i < 4 ? Ipv4Port{0} : static_cast<Ipv4Port>(clients_.addresses[i]);
        EXPECT_EQ(clients_.destinations[i], expected) << i;
    }
}

// The record with a restream list, and what is said about it.
static std::string report(const char *text, int enabled, int block_size,
                          void (*check)(ConfigRecord &)) {
    const auto record = std::make_unique<ConfigRecord>();
    ::testing::internal::CaptureStderr();
    parse_restream_clients(text, record->restream_clients);
    ::testing::internal::GetCapturedStderr();
    record->stream_udp_enabled = enabled;
    record->stream_udp_blocksize = block_size;
    ::testing::internal::CaptureStderr();
    check(*record);
    return ::testing::internal::GetCapturedStderr();
}

static void report_only(ConfigRecord &record) {
    report_restreaming(record);
}

TEST(RestreamReport, NamesEachReason) {
    EXPECT_EQ(report("192.0.2.1:7", 1, 1300, report_only), "");
    EXPECT_EQ(report("192.0.2.1:7", 1, 1, report_only), "");
    EXPECT_EQ(report("", 1, 0, report_only), "Restreaming sends nothing: the block size is 0\n");
    EXPECT_EQ(report("x:7,192.0.2.1:7,y:7,127.0.0.1:5252", 1, -2147483647 - 1, report_only),
              "Restreaming sends nothing: the block size is -2147483648\n"
              "Restreaming sends nothing to receiver 0, 2: the host is not an address\n"
              "Restreaming to 127.0.0.1:5252 is refused: it is the daemon's own port\n");
    EXPECT_EQ(report("x:7,127.0.0.1:5252", 0, 0, report_only), "") << "it is off";
}

TEST(RestreamReport, FollowsTheBoardsAddresses) {
    // As if 127.0.0.1 were new, then as if 192.0.2.1 were gone.
    EXPECT_EQ(report("127.0.0.1:5252", 1, 1300,
                     [](ConfigRecord &record) {
                         RestreamClients &clients = record.restream_clients;
                         clients.destinations[0] = static_cast<Ipv4Port>(clients.addresses[0]);
                         recheck_restream_clients(record);
                         EXPECT_EQ(clients.destinations[0], 0U);
                         recheck_restream_clients(record);
                     }),
              "Restreaming to 127.0.0.1:5252 is refused: it is the daemon's own port\n");
    EXPECT_EQ(report("192.0.2.1:5252", 1, 1300,
                     [](ConfigRecord &record) {
                         RestreamClients &clients = record.restream_clients;
                         clients.destinations[0] = 0;
                         recheck_restream_clients(record);
                         EXPECT_EQ(clients.destinations[0], clients.addresses[0]);
                     }),
              "");
}

TEST_F(Loader, FillsTheRestreamListFromTheStoredText) {
    // The stored text is parsed with its quotes, so the first host is not an address.
    load("stream_udp_clients=\"10.0.0.1:7,10.0.0.2:8\n");
    EXPECT_EQ(config_record().restream_clients.count, 2);
    EXPECT_EQ(config_record().restream_clients.destinations[0], 0U);
    EXPECT_EQ(config_record().restream_clients.destinations[1], ipv4_port("10.0.0.2", 8));
}
