#include "core/status_monitor.h"

#include "config/config.h"

#include <array>
#include <functional>
#include <gtest/gtest.h>
#include <memory>

using Record = std::array<uint8_t, status_record_size>;

static Record record_of(const BoardStatus &status,
                        const std::function<void(ConfigRecord &)> &configure = nullptr) {
    const auto config = std::make_unique<ConfigRecord>();
    if (configure) {
        configure(*config);
    }
    Record record;
    record.fill(0xEE);
    fill_status_record(status, *config, record.data());
    return record;
}

TEST(StatusRecord, OfAnIdleBoardIsAllButEmpty) {
    Record expected{};
    expected[0] = 4;
    expected[20] = 8;
    expected[21] = 19;
    EXPECT_EQ(record_of({}), expected);
}

TEST(StatusRecord, HasEveryByteInItsPlace) {
    BoardStatus status{};
    status.client_count = 7;
    status.access_point_active = true;
    status.wifi_connected = false;
    status.camera_connected = true;
    status.data_present = true;
    status.rtmp_number = 0x01020304;
    status.recorder_number = 0x11121314;
    status.rtsp_number = -2;
    status.srt_seconds = 0x31323334;
    status.millidegrees = 48312;
    status.rc1_state = 1;
    status.rc2_state = 2;
    status.storage = {storage_external, 0x41424344};
    const Record record = record_of(status, [](ConfigRecord &config) {
        config.app_type = 200;
        config.osd_enabled = 1;
        config.osd_borders = 3;
        config.recording_enabled = 1;
        config.stream_srt_enabled = 1;
    });
    const Record expected = {4,    200,  0,    7,    5,    1,    9,    4,    3,    2,    1,
                             0x14, 0x13, 0x12, 0x11, 1,    2,    7,    48,   0,    8,    19,
                             2,    0x44, 0x43, 0x42, 0x41, 0x34, 0x33, 0x32, 0x31, 0xFE, 0xFF,
                             0xFF, 0xFF, 0,    0,    0,    0,    1,    0};
    EXPECT_EQ(record, expected);
}

TEST(StatusRecord, NetworkFlagsAreBits) {
    BoardStatus status{};
    status.access_point_active = true;
    EXPECT_EQ(record_of(status)[4], 1);
    status = {};
    status.wifi_connected = true;
    EXPECT_EQ(record_of(status)[4], 2);
    status = {};
    status.camera_connected = true;
    EXPECT_EQ(record_of(status)[4], 4);
}

TEST(StatusRecord, EitherSourceCountsAsPresent) {
    BoardStatus status{};
    status.video_present = true;
    EXPECT_EQ(record_of(status)[5], 1);
    EXPECT_EQ(record_of(status)[39], 0);
    EXPECT_EQ(record_of(status)[40], 1);
    status = {};
    status.data_present = true;
    EXPECT_EQ(record_of(status)[5], 1);
    EXPECT_EQ(record_of(status)[39], 1);
    EXPECT_EQ(record_of(status)[40], 0);
}

TEST(StatusRecord, ServiceFlagsTakeTheLowBit) {
    using Setting = Relaxed<int32_t> ConfigRecord::*;
    const std::pair<Setting, uint8_t> flags[] = {
        {&ConfigRecord::recording_enabled, 1},   {&ConfigRecord::stream_udp_enabled, 2},
        {&ConfigRecord::stream_rtmp_enabled, 4}, {&ConfigRecord::stream2_rtmp_enabled, 4},
        {&ConfigRecord::stream_srt_enabled, 8},  {&ConfigRecord::rtsp_server_enabled, 16},
    };
    for (const auto &[setting, bit] : flags) {
        for (const int32_t value : {1, 3, -1}) {
            EXPECT_EQ(record_of({}, [&](ConfigRecord &config) { config.*setting = value; })[6],
                      bit);
        }
        for (const int32_t value : {0, 2, -2}) {
            EXPECT_EQ(record_of({}, [&](ConfigRecord &config) { config.*setting = value; })[6], 0);
        }
    }
    EXPECT_EQ(record_of({},
                        [](ConfigRecord &config) {
                            config.stream_rtmp_enabled = 1;
                            config.stream2_rtmp_enabled = 1;
                        })[6],
              4);
}

TEST(StatusRecord, TheOsdByteIsCutToItsLowByte) {
    EXPECT_EQ(record_of({},
                        [](ConfigRecord &config) {
                            config.osd_enabled = 2147483647;
                            config.osd_borders = 2147483647;
                        })[17],
              static_cast<uint8_t>(2147483647U + 2U * 2147483647U));
}

TEST(StatusRecord, TheTemperatureTruncatesTowardZero) {
    const auto degrees = [](int32_t millidegrees) {
        BoardStatus status{};
        status.millidegrees = millidegrees;
        return record_of(status)[18];
    };
    EXPECT_EQ(degrees(999), 0);
    EXPECT_EQ(degrees(48999), 48);
    EXPECT_EQ(degrees(-999), 0);
    EXPECT_EQ(degrees(-1999), 255);
    EXPECT_EQ(degrees(300000), 44);
}

TEST(StorageChoice, TakesTheFreerPlace) {
    EXPECT_EQ(choose_storage(10, 9).place, storage_internal);
    EXPECT_EQ(choose_storage(10, 9).free_megabytes, 10U);
    EXPECT_EQ(choose_storage(9, 10).place, storage_external);
    EXPECT_EQ(choose_storage(9, 10).free_megabytes, 10U);
    EXPECT_EQ(choose_storage(0, 1).place, storage_external);
    EXPECT_EQ(choose_storage(1, 0).place, storage_internal);
}

TEST(StorageChoice, ATieGoesToExternal) {
    EXPECT_EQ(choose_storage(10, 10).place, storage_external);
}

TEST(StorageChoice, IsNoneWithoutSpace) {
    EXPECT_EQ(choose_storage(0, 0).place, storage_none);
    EXPECT_EQ(choose_storage(0, 0).free_megabytes, 0U);
}
