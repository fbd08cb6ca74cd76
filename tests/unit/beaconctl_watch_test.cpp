// What `beaconctl watch` measures, and how it says so.
#include "beaconctl/watch_words.h"
#include "client/mount_list.h"

#include "net/relay_packet.h"

#include <gtest/gtest.h>

static const TimePoint start = TimePoint{} + from_seconds(1000);

struct Feed {
    StreamMeter meter;
    uint32_t sequence = 100;
    TimePoint now = start;
};

static void send(Feed &feed, uint8_t type, const std::string &bytes) {
    const std::vector<uint8_t> payload(bytes.begin(), bytes.end());
    meter_packet(feed.meter, {type, feed.sequence++, payload}, feed.now);
}

static const std::string key_slice("\0\0\0\1\x65\x88", 6);
static const std::string other_slice("\0\0\1\x41\x9a", 5);
static const std::string second_slice("\0\0\1\x41\x40", 5); // of the same picture
static const std::string parameters("\0\0\0\1\x67\x80\0\0\0\1\x68\x80", 12);

static double pictures(Feed &feed) {
    feed.now += from_seconds(2);
    step_meter(feed.meter, feed.now);
    return feed.meter.rates->pictures * 2;
}

TEST(StreamMeter, CountsPicturesNotSlicesNorParameterSets) {
    Feed feed;
    step_meter(feed.meter, feed.now);
    send(feed, relay_type_video, parameters + key_slice + std::string(1000, 'x'));
    send(feed, relay_type_video, other_slice + "xx" + second_slice + "xx" + other_slice);
    EXPECT_EQ(pictures(feed), 3);
    EXPECT_EQ(pictures(feed), 0);
}

TEST(StreamMeter, CountsAPictureWhoseStartCodeLiesAcrossTwoPackets) {
    Feed feed;
    step_meter(feed.meter, feed.now);
    for (size_t cut = 1; cut < key_slice.size(); ++cut) {
        send(feed, relay_type_video, "xx" + key_slice.substr(0, cut));
        send(feed, relay_type_data, "between");
        send(feed, relay_type_video, key_slice.substr(cut));
    }
    EXPECT_EQ(pictures(feed), 5);
    send(feed, relay_type_video, key_slice.substr(0, 4));
    ++feed.sequence; // lost: what stood before it does not go on
    send(feed, relay_type_video, key_slice.substr(4));
    EXPECT_EQ(pictures(feed), 0);
}

TEST(StreamMeter, MeasuresEachStream) {
    Feed feed;
    step_meter(feed.meter, feed.now);
    for (int i = 0; i < 100; ++i) {
        send(feed, relay_type_video, std::string(1250, 'v'));
        send(feed, relay_type_audio, std::string(125, 'a'));
        send(feed, relay_type_internal_camera, std::string(12500, 'c'));
    }
    step_meter(feed.meter, feed.now + from_seconds(1.9));
    EXPECT_FALSE(feed.meter.rates);
    pictures(feed);
    EXPECT_NEAR(feed.meter.rates->video, 0.5, 1e-9);
    EXPECT_NEAR(feed.meter.rates->audio, 0.05, 1e-9);
    EXPECT_NEAR(feed.meter.rates->camera, 5, 1e-9);
}

TEST(StreamMeter, KnowsLossesAndRestarts) {
    Feed feed;
    send(feed, relay_type_data, "x");
    feed.sequence += 7;
    send(feed, relay_type_data, "x");
    EXPECT_EQ(feed.meter.count.lost, 7U);
    EXPECT_EQ(feed.meter.daemon_restarts, 0);
    EXPECT_EQ(feed.meter.daemon_since, start);
    feed.sequence -= 3; // one of them, late
    send(feed, relay_type_data, "x");
    EXPECT_EQ(feed.meter.count.lost, 6U);
    EXPECT_EQ(feed.meter.daemon_restarts, 0);
    feed.now += from_seconds(60);
    feed.sequence = 3;
    send(feed, relay_type_data, "x");
    EXPECT_EQ(feed.meter.daemon_restarts, 1);
    EXPECT_EQ(feed.meter.daemon_since, feed.now);
    EXPECT_EQ(feed.meter.count.lost, 6U);
}

static std::string row(const StatusWords &words, const std::string &name) {
    for (const auto &[title, text] : words) {
        if (title == name) {
            return text;
        }
    }
    return "no " + name;
}

TEST(WatchWords, SayWhatIsMeasured) {
    StreamMeter meter;
    meter.rates = StreamRates{29.97, 4.126, 0.256, 0};
    meter.count.expected = 500;
    meter.count.lost = 12;
    meter.daemon_since = start;
    const TimePoint now = start + from_seconds(3 * 86400 + 3661);
    const StatusWords words = measured_words(&meter, meter, now);
    EXPECT_EQ(row(words, "Video"), "30.0 frames/s, 4.13 Mbit/s; sound 0.26 Mbit/s");
    EXPECT_EQ(row(words, "Lost"), "12 packets");
    EXPECT_EQ(row(words, "Daemon"), "at packet 500, seen for 3 d 01:01:01");
    meter.daemon_restarts = 2;
    EXPECT_EQ(row(measured_words(&meter, meter, start), "Daemon"),
              "at packet 500, seen for 00:00:00, started again 2 times");
    EXPECT_EQ(measured_line(&meter),
              "; video: 30.0 frames/s, 4.13 Mbit/s; sound 0.26 Mbit/s; lost: 12 packets");
    EXPECT_EQ(measured_json(&meter, meter, start + from_seconds(2)),
              R"("frames_per_second":29.970,"video_mbits":4.126,"audio_mbits":0.256,)"
              R"("camera_mbits":0.000,"lost":12,"sequence":500,"seen_seconds":2.000,"restarts":2)");
}

TEST(WatchWords, WhatIsNotKnownIsADash) {
    StreamMeter meter;
    EXPECT_EQ(row(measured_words(&meter, meter, start), "Video"), "-"); // nothing measured yet
    meter.rates = StreamRates{1, 1, 1, 1};
    const StatusWords words = measured_words(nullptr, meter, start);
    EXPECT_EQ(row(words, "Video"), "-");
    EXPECT_EQ(row(words, "Lost"), "-");
    EXPECT_EQ(measured_line(nullptr), "");
    EXPECT_TRUE(measured_json(nullptr, meter, start).starts_with(R"("frames_per_second":null,)"));
}

TEST(MountList, SaysWhetherADriveIsAtThePlace) {
    StatusRecord record{};
    record.storage_place = 2;
    const char *const mounts = "/dev/root / ext4 rw 0 0\n/dev/mmcblk0p3 /mnt ext4 rw 0 0\n"
                               "/dev/sdb1 /media/other vfat rw 0 0\n";
    EXPECT_EQ(drive_of(record, mounts), Drive::missing);
    EXPECT_EQ(drive_of(record, "/dev/sda1 /media vfat rw 0 0\n"), Drive::mounted);
    EXPECT_EQ(drive_of(record, ""), Drive::unknown);
    record.storage_place = 1;
    EXPECT_EQ(drive_of(record, mounts), Drive::mounted);
    record.storage_place = 255;
    EXPECT_EQ(drive_of(record, mounts), Drive::unknown);
}

TEST(MountList, AFolderOfTheSystemOverItselfIsNoDrive) {
    StatusRecord record{};
    record.storage_place = 2;
    const std::string system = "25 1 179:2 / / ro shared:1 - ext4 /dev/root rw\n"
                               "30 25 8:17 / /media/other rw - vfat /dev/sdb1 rw\n";
    const std::string folder = "31 25 179:2 /media /media rw - ext4 /dev/root rw\n";
    const std::string drive = "32 31 8:1 / /media rw - vfat /dev/sda1 rw\n";
    EXPECT_EQ(drive_here(record, system), Drive::missing);
    EXPECT_EQ(drive_here(record, system + folder), Drive::missing);
    EXPECT_EQ(drive_here(record, system + folder + drive), Drive::mounted);
    EXPECT_EQ(drive_here(record, drive + system), Drive::mounted);
    EXPECT_EQ(drive_here(record, ""), Drive::unknown);
    record.storage_place = 1;
    EXPECT_EQ(drive_here(record, system + folder + drive), Drive::missing);
    record.storage_place = 255;
    EXPECT_EQ(drive_here(record, system), Drive::unknown);
}
