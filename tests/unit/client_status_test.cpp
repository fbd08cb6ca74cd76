// The status record in words. The record is written by the daemon's own function.
#include "client/status_words.h"

#include "config/config.h"
#include "core/status_monitor.h"
#include "net/relay_packet.h"

#include <fstream>
#include <gtest/gtest.h>

static std::optional<StatusRecord> parse(std::span<const uint8_t> payload) {
    return parse_status({relay_type_data, 0, payload});
}

static StatusRecord read_back(const BoardStatus &status, const ConfigRecord &config) {
    uint8_t record[status_record_size];
    fill_status_record(status, config, record);
    return parse(record).value();
}

static std::string words_of(const StatusRecord &record, const std::string &name) {
    for (const auto &[title, text] : status_words(record)) {
        if (title == name) {
            return text;
        }
    }
    return "no " + name;
}

TEST(StatusRecord, IsReadAsTheDaemonWritesIt) {
    static ConfigRecord config{};
    config.app_type = 14;
    config.recording_enabled = 1;
    config.stream2_rtmp_enabled = 1;
    config.rtsp_server_enabled = 1;
    config.osd_enabled = 1;
    config.osd_borders = 1;
    BoardStatus status{};
    status.client_count = 3;
    status.wifi_connected = true;
    status.data_present = true;
    status.rtmp_number = 70000;
    status.recorder_number = 80000;
    status.rtsp_number = 90000;
    status.srt_seconds = 5;
    status.millidegrees = 48312;
    status.rc2_state = 2;
    status.storage = {storage_internal, 12345};
    status.movement_running = true;
    status.movement_index = 1;
    status.movement_count = 4;
    status.movement_nearest = 2;
    StatusRecord expected{};
    expected.app_type = 14;
    expected.client_count = 3;
    expected.wifi = true;
    expected.is_recording = expected.rtmp = expected.rtsp = true;
    expected.rtmp_number = 70000;
    expected.recorder_number = 80000;
    expected.rtsp_number = 90000;
    expected.rc_state[1] = 2;
    expected.osd = expected.osd_borders = true;
    expected.temperature = 48;
    expected.version[1] = 8;
    expected.version[2] = 19;
    expected.storage_place = 1;
    expected.free_megabytes = 12345;
    expected.srt_seconds = 5;
    expected.movement_running = true;
    expected.movement_index = 1;
    expected.movement_count = 4;
    expected.movement_nearest = 2;
    expected.data_source = true;
    EXPECT_EQ(read_back(status, config), expected);
}

TEST(StatusRecord, EachFlagHasItsOwnPlace) {
    static const ConfigRecord config{};
    BoardStatus status{};
    status.access_point_active = true;
    EXPECT_EQ(words_of(read_back(status, config), "Links"), "access point up");
    status.camera_connected = true;
    EXPECT_EQ(words_of(read_back(status, config), "Links"),
              "access point up, camera network connected");
    status.video_present = true;
    EXPECT_EQ(words_of(read_back(status, config), "Sources"), "video");
    status.rc1_state = 1;
    EXPECT_EQ(words_of(read_back(status, config), "RC"), "RC1 present, RC2 absent");
    static ConfigRecord services{};
    services.stream_udp_enabled = 1;
    services.stream_srt_enabled = 1;
    status.srt_seconds = 61;
    EXPECT_EQ(words_of(read_back(status, services), "Services"), "UDP, SRT (client for 61 s)");
}

TEST(StatusRecord, AnythingElseIsRefused) {
    uint8_t record[status_record_size + 1] = {4};
    EXPECT_TRUE(parse({record, status_record_size}));
    EXPECT_FALSE(parse({record, status_record_size - 1}));
    EXPECT_FALSE(parse({record, status_record_size + 1}));
    record[0] = 1;
    EXPECT_FALSE(parse({record, status_record_size}));
    EXPECT_FALSE(parse({}));
}

TEST(StatusWords, AnIdleBoard) {
    const StatusRecord idle{};
    EXPECT_EQ(status_line(idle),
              "sources: none; storage: not examined on this board; links: none up; "
              "services: all off; -; RC: no receiver; movement: no list; clients: 0");
}

TEST(StatusWords, Storage) {
    StatusRecord record{};
    const auto text = [&](uint8_t place, uint32_t megabytes) {
        record.storage_place = place;
        record.free_megabytes = megabytes;
        return words_of(record, "Storage");
    };
    EXPECT_EQ(text(1, 999), "internal, 999 MB free");
    EXPECT_EQ(text(2, 12345), "external, 12.3 GB free");
    EXPECT_EQ(text(2, 0), "external, no free space or no drive");
    EXPECT_EQ(text(255, 0), "no free space anywhere");
    EXPECT_EQ(text(7, 0), "place 7");
    record.storage_place = 2;
    record.free_megabytes = 83000; // of the system, as there is no drive
    EXPECT_EQ(status_words(record, Drive::missing)[2].second, "external, no drive mounted: -");
    EXPECT_EQ(status_words(record, Drive::mounted)[2].second, "external, 83.0 GB free");
}

// The flags say what is switched on, the numbers what runs.
TEST(StatusWords, ServicesThatShowNoSign) {
    StatusRecord record{};
    record.is_recording = record.udp = record.rtmp = record.srt = record.rtsp = true;
    EXPECT_EQ(words_of(record, "Services"),
              "recording (wanted, not running), UDP, RTMP (wanted, not running), "
              "SRT (wanted, no viewer), RTSP (wanted, no viewer)");
    record.recorder_number = 75;
    record.rtmp_number = 4000;
    record.rtsp_number = 2;
    EXPECT_EQ(words_of(record, "Services"),
              "recording (75), UDP, RTMP (4000), SRT (wanted, no viewer), RTSP (2)");
}

TEST(StatusWords, Movement) {
    StatusRecord record{};
    record.movement_count = 3;
    record.movement_nearest = 2;
    EXPECT_EQ(words_of(record, "Movement"), "stopped, 3 steps, camera nearest to step 3");
    record.movement_running = true;
    EXPECT_EQ(words_of(record, "Movement"), "at step 1 of 3 steps, camera nearest to step 3");
    record.movement_index = 3;
    EXPECT_EQ(words_of(record, "Movement"), "running, 3 steps, camera nearest to step 3");
    record.movement_count = 0;
    EXPECT_EQ(words_of(record, "Movement"), "running, but the list is empty");
}

TEST(StatusWords, TemperaturesBelowZero) {
    StatusRecord record =
        parse(std::vector<uint8_t>{4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFB, 0, 0,
                                   0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,    0})
            .value();
    EXPECT_EQ(words_of(record, "Temperature"), "-5 °C");
}

// "| 14 | DJI Pocket 2 USB |" in the list of docs/settings.md.
TEST(StatusWords, CamerasAreNamedAsInTheDocument) {
    std::ifstream document(DOCS_FOLDER "/settings.md");
    int rows = 0;
    for (std::string line; std::getline(document, line);) {
        if (line == "| " + std::to_string(rows) + " | " + app_type_text(rows) + " |") {
            ++rows;
        }
    }
    EXPECT_EQ(rows, 16);
    EXPECT_EQ(app_type_text(16), "type 16");
}
