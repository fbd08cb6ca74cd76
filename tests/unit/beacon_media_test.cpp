#include "beacon_media/address.h"
#include "beacon_media/film_plan.h"
#include "beacon_media/pace.h"
#include "beacon_media/picture_gate.h"
#include "beacon_media/raspivid_words.h"
#include "beacon_media/sound_plan.h"
#include "beacon_media/source_line.h"
#include "beacon_media/source_words.h"

#include <gtest/gtest.h>

constexpr size_t most = 1000;
constexpr int64_t millisecond = 1000000;

static Verdict judge(PictureGate &gate, bool is_key, bool has_room = true, size_t size = 10) {
    return judge_picture(gate, size, is_key, most, has_room);
}

TEST(PictureGate, BeginsWithAKeyFrame) {
    PictureGate gate;
    EXPECT_EQ(judge(gate, false), Verdict::no_key);
    EXPECT_EQ(judge(gate, true), Verdict::publish);
    EXPECT_EQ(judge(gate, false), Verdict::publish);
    EXPECT_EQ(gate.passed, 2U);
    EXPECT_EQ(gate.bytes, 20U);
    EXPECT_EQ(dropped_pictures(gate), 1U);
}

TEST(PictureGate, WithoutRoomDropsUpToAKeyFrame) {
    PictureGate gate;
    judge(gate, true);
    EXPECT_EQ(judge(gate, false, false), Verdict::no_room);
    EXPECT_EQ(judge(gate, false), Verdict::no_key);
    EXPECT_EQ(judge(gate, true, false), Verdict::no_room);
    EXPECT_EQ(judge(gate, false), Verdict::no_key);
    EXPECT_EQ(judge(gate, true), Verdict::publish);
    EXPECT_EQ(gate.no_room, 2U);
    EXPECT_EQ(gate.no_key, 2U);
}

TEST(PictureGate, DropsWhatIsTooLongAndWhatFollows) {
    PictureGate gate;
    EXPECT_EQ(judge(gate, true, true, most), Verdict::publish);
    EXPECT_EQ(judge(gate, false, true, most + 1), Verdict::too_long);
    EXPECT_EQ(judge(gate, false), Verdict::no_key);
    EXPECT_EQ(judge(gate, true), Verdict::publish);
    EXPECT_EQ(gate.too_long, 1U);
}

TEST(PictureGate, AStreamBeginsWithAParameterSetOrAKeyFrame) {
    using Piece = std::vector<uint8_t>;
    EXPECT_TRUE(begins_stream(Piece{0, 0, 0, 1, 0x67, 1}));
    EXPECT_TRUE(begins_stream(Piece{0, 0, 1, 9, 0xF0, 0, 0, 1, 0x65, 1}));
    EXPECT_FALSE(begins_stream(Piece{0, 0, 1, 9, 0xF0, 0, 0, 1, 0x41, 1, 0, 0, 1, 0x65}));
    EXPECT_FALSE(begins_stream(Piece{0, 0, 1, 0x68, 0, 0, 1}));
    EXPECT_FALSE(begins_stream(Piece{}));
}

TEST(SoundPlan, SoundThatIsMissingIsSilence) {
    EXPECT_EQ(missing_sound(1000 * millisecond, 1399 * millisecond).length, 0);
    const Silence silence = missing_sound(1000 * millisecond, 1400 * millisecond);
    EXPECT_EQ(silence.begin, 1000 * millisecond);
    EXPECT_EQ(silence.length, 400 * millisecond);
    EXPECT_EQ(missing_sound(1000 * millisecond, 0).length, 0);
}

TEST(SoundPlan, HoursOfSilenceAreNotFilled) {
    constexpr int64_t day = 24LL * 3600 * 1000 * millisecond;
    const Silence silence = missing_sound(1000 * millisecond, day);
    EXPECT_EQ(silence.length, 15000 * millisecond);
    EXPECT_EQ(silence.begin + silence.length, day);
}

// A card whose clock is fast by 1 %, for an hour.
TEST(SoundPlan, SoundDoesNotRunAway) {
    constexpr int64_t length = 20 * millisecond;
    int64_t end = 0;
    unsigned left_out = 0;
    for (int64_t now = length; now < 3600 * 1000 * millisecond; now += length * 99 / 100) {
        if (is_too_much_sound(end, now)) {
            ++left_out;
        } else {
            end += length;
        }
        ASSERT_LE(end, now + 220 * millisecond);
    }
    EXPECT_NEAR(left_out, 1800, 15);
    EXPECT_EQ(missing_sound(end, 3600 * 1000 * millisecond).length, 0);
}

TEST(Pace, FollowsTheFilesTimes) {
    Pace pace;
    EXPECT_EQ(due_time(pace, 5000, 70, 40), 5000);
    EXPECT_EQ(due_time(pace, 9000, 110, 40), 5040);
    EXPECT_EQ(due_time(pace, 9000, 150, 40), 5080);
}

TEST(Pace, WithoutTimesCountsDurations) {
    Pace pace;
    EXPECT_EQ(due_time(pace, 100, no_time, 40 * millisecond), 100);
    EXPECT_EQ(due_time(pace, 100, no_time, no_time), 100 + 40 * millisecond);
    EXPECT_EQ(due_time(pace, 100, no_time, no_time), 100 + 40 * millisecond + 1000000000 / 30);
}

TEST(Pace, AJumpIsSkipped) {
    Pace pace;
    due_time(pace, 0, 0, 40 * millisecond);
    EXPECT_EQ(due_time(pace, 0, 1, 40 * millisecond), 1);
    // The film begins again, or its times go wrong.
    EXPECT_EQ(due_time(pace, 0, 90000 * millisecond, 40 * millisecond), 1 + 40 * millisecond);
    EXPECT_EQ(due_time(pace, 0, 90040 * millisecond, 40 * millisecond), 1 + 80 * millisecond);
}

TEST(Pace, AShortFilmThatIsPlayedAgainTakesItsTimeAgain) {
    Pace pace;
    due_time(pace, 0, 0, 40 * millisecond);
    due_time(pace, 0, 40 * millisecond, 40 * millisecond);
    begin_again(pace);
    EXPECT_EQ(due_time(pace, 0, 0, 40 * millisecond), 80 * millisecond);
    EXPECT_EQ(due_time(pace, 0, 40 * millisecond, 40 * millisecond), 120 * millisecond);
}

static std::string kind_and_text(const std::string &text) {
    const auto source = parse_source(text);
    return source ? std::to_string(static_cast<int>(source->kind)) + " " + source->text : "none";
}

TEST(SourceWords, KindsOfSources) {
    EXPECT_EQ(kind_and_text("-"), "0 -");
    EXPECT_EQ(kind_and_text("exec:a b"), "1 a b");
    EXPECT_EQ(kind_and_text("film.mp4"), "2 film.mp4");
    EXPECT_EQ(kind_and_text("test"), "3 test");
    EXPECT_EQ(kind_and_text("./test"), "2 ./test");
    EXPECT_EQ(kind_and_text("/dev/video0"), "4 /dev/video0");
    EXPECT_EQ(kind_and_text("rtsp://a/b"), "5 rtsp://a/b");
    for (const char *text : {"", "exec:", "exec: \t", "http://a/b"}) {
        EXPECT_EQ(kind_and_text(text), "none") << text;
    }
}

// The engine would read elements out of it.
TEST(SourceWords, NothingOfAUsersTextIsInAPipeline) {
    for (const char *text :
         {"x ! filesink", "exec:x ! filesink", "/dev/x ! filesink", "rtsp://x ! filesink"}) {
        const PipelineWords words = video_pipeline(*parse_source(text), {}, {});
        EXPECT_EQ(words.description.find("filesink"), std::string::npos) << words.description;
    }
    const auto audio = audio_pipeline("alsa:x ! filesink");
    EXPECT_EQ(audio->description.find("filesink"), std::string::npos);
    EXPECT_EQ(audio->value, "x ! filesink");
}

static bool device_has(const EngineParts &parts, const char *element) {
    const SourceWords device{SourceKind::device, "/dev/video0"};
    return video_pipeline(device, {}, parts).description.find(element) != std::string::npos;
}

TEST(SourceWords, ADeviceIsEncodedOnlyIfItHasTo) {
    EXPECT_FALSE(device_has({false, true, true}, "enc"));
    EXPECT_TRUE(device_has({false, true, false}, "v4l2h264enc"));
    EXPECT_TRUE(device_has({false, false, false}, "x264enc tune=zerolatency"));
}

TEST(SourceWords, Sound) {
    EXPECT_EQ(audio_pipeline("none")->description, "");
    EXPECT_NE(audio_pipeline("test")->description.find("audiotestsrc"), std::string::npos);
    EXPECT_FALSE(audio_pipeline("alsa:"));
    EXPECT_FALSE(audio_pipeline(""));
}

TEST(FilmPlan, BeginsWithAKeyFrame) {
    FilmView view;
    EXPECT_EQ(plan_film(view), FilmStep::leave);
    view.is_key = true;
    EXPECT_EQ(plan_film(view), FilmStep::begin);
    view.is_open = true;
    EXPECT_EQ(plan_film(view), FilmStep::write);
}

TEST(FilmPlan, ALongFilmGoesOnUpToAKeyFrame) {
    FilmView view;
    view.is_open = true;
    view.bytes = longest_film;
    EXPECT_EQ(plan_film(view), FilmStep::write);
    view.is_key = true;
    EXPECT_EQ(plan_film(view), FilmStep::begin);
    view.bytes = longest_film - 1;
    EXPECT_EQ(plan_film(view), FilmStep::write);
}

TEST(FilmPlan, AnotherSizeIsAnotherFilm) {
    FilmView view;
    view.is_open = true;
    view.has_changed = true;
    EXPECT_EQ(plan_film(view), FilmStep::leave);
    view.is_key = true;
    EXPECT_EQ(plan_film(view), FilmStep::begin);
}

TEST(FilmPlan, AFilmWithoutSoundGoesOnUpToAKeyFrame) {
    FilmView view;
    view.is_open = true;
    view.lacks_sound = true;
    EXPECT_EQ(plan_film(view), FilmStep::write);
    view.is_key = true;
    EXPECT_EQ(plan_film(view), FilmStep::begin);
}

TEST(FilmPlan, WithoutSpaceStops) {
    FilmView view;
    view.is_open = true;
    view.is_key = true;
    view.has_space = false;
    EXPECT_EQ(plan_film(view), FilmStep::stop);
}

TEST(FilmPlan, Names) {
    tm time{};
    time.tm_year = 124;
    time.tm_mon = 0;
    time.tm_mday = 31;
    time.tm_hour = 9;
    time.tm_min = 5;
    time.tm_sec = 3;
    EXPECT_EQ(film_folder(time), "DCIM/20240131");
    EXPECT_EQ(film_name(time, 1), "090503");
    EXPECT_EQ(film_name(time, 2), "090503-2");
}

using Words = std::vector<std::string>;

TEST(SourceLine, IsTheFirstThatIsNoComment) {
    EXPECT_EQ(source_line("# a\n\n  # b\n \ttest --loop \r\nother\n"), "test --loop");
    EXPECT_EQ(source_line("test"), "test");
    EXPECT_EQ(source_line("# a\n\n"), "");
    EXPECT_EQ(source_line(""), "");
}

TEST(SourceLine, WordsStandBetweenBlanks) {
    EXPECT_EQ(split_words("test  --size\t64x64 "), (Words{"test", "--size", "64x64"}));
    EXPECT_EQ(split_words("\"exec:a -b 'c d'\" --loop"), (Words{"exec:a -b 'c d'", "--loop"}));
    EXPECT_EQ(split_words("exec:'a b'c ''"), (Words{"exec:a bc", ""}));
    EXPECT_EQ(split_words("exec:\"a"), std::nullopt);
}

static std::string camera(const std::string &line) {
    std::string text;
    for (const std::string &word : translate_camera_options(*split_words(line)).options) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

TEST(CameraOptions, ThoseOfTheDaemon) {
    EXPECT_EQ(camera("-t 0 -w 1280 -h 720 -fps 48 --bitrate 2000000 --preview 100,100,320,200 "
                     "--flush --inline --spstimings -o -"),
              "--codec h264 --timeout 0 --width 1280 --height 720 --framerate 48 --bitrate 2000000 "
              "--preview 100,100,320,200 --flush --inline --output -");
}

TEST(CameraOptions, ScalesAreOthers) {
    EXPECT_EQ(camera("-br 75 -co -50 -ISO 400 -hf -ev -2"),
              "--codec h264 --brightness 0.500000 --contrast 0.500000 --gain 4.000000 --hflip "
              "--ev -2");
}

TEST(CameraOptions, WhatThereIsNothingForIsTold) {
    const CameraWords words = translate_camera_options({"-ifx", "sketch", "-n", "--settings"});
    EXPECT_EQ(words.unknown, (Words{"-ifx sketch", "--settings"}));
    EXPECT_EQ(words.options, (Words{"--codec", "h264", "--nopreview"}));
}

TEST(Address, IsShownWithoutNameAndPassword) {
    EXPECT_EQ(shown_address("rtsp://user:pa@ss@cam:554/a@b"), "rtsp://...@cam:554/a@b");
    EXPECT_EQ(shown_address("rtsp://user@cam"), "rtsp://...@cam");
    EXPECT_EQ(shown_address("rtsp://cam/a@b"), "rtsp://cam/a@b");
    EXPECT_EQ(shown_address("rtmp://cam?a@b"), "rtmp://cam?...");
    EXPECT_EQ(shown_address("rtsp://a:b@cam/1?token=c?d"), "rtsp://...@cam/1?...");
    EXPECT_EQ(shown_address("user@cam"), "user@cam");
    EXPECT_EQ(shown_address(""), "");
}

TEST(RtmpAddress, IsShownWithoutKey) {
    for (const char *end : {"", "?", "?token=more", "/", "//?a/b"}) {
        const std::string address = "rtmp://a:b@server/live/key";
        EXPECT_EQ(shown_rtmp_address(address + end, ""), "rtmp://...@server/live/...") << end;
    }
    EXPECT_EQ(shown_rtmp_address("rtmp://server/live/more", "key"), "rtmp://server/live/more");
    EXPECT_EQ(shown_rtmp_address("rtmp://server/live?a", "key"), "rtmp://server/live?...");
    EXPECT_EQ(shown_rtmp_address("rtmp://server/live", ""), "rtmp://server/live");
    EXPECT_EQ(shown_rtmp_address("", ""), "");
}

TEST(RtmpAddress, NeedsServerPathAndKey) {
    for (const char *address : {"", "nonsense", "rtmp:/server/live", "http://server/live"}) {
        EXPECT_EQ(rtmp_fault(address, "key"), "this is no rtmp:// or rtmps:// address") << address;
    }
    for (const char *address :
         {"rtmp://", "rtmp:///live", "rtmp://:1935/live", "rtmp://a:b@/live"}) {
        EXPECT_EQ(rtmp_fault(address, "key"), "there is no server in this address") << address;
    }
    for (const char *port : {"", "0", "65536", "x", "1935x", "-1"}) {
        const std::string address = std::string("rtmp://server:") + port + "/live";
        EXPECT_EQ(rtmp_fault(address, "key"), "its port is no port's number") << address;
    }
    for (const char *address : {"rtmp://server", "rtmps://server:1935/", "rtmp://server//"}) {
        EXPECT_EQ(rtmp_fault(address, "key"),
                  "there is no path in this address: it should be like rtmp://SERVER/live")
            << address;
    }
    for (const char *address : {"rtmp://server/live", "rtmp://server/live/"}) {
        EXPECT_EQ(rtmp_fault(address, ""), "there is no key for it") << address;
        EXPECT_EQ(rtmp_fault(address, "key"), "") << address;
    }
    EXPECT_EQ(rtmp_fault("rtmp://server/live/key", ""), "");
    EXPECT_EQ(rtmp_fault("rtmps://a:b@server:443/live/more", "key"), "");
    EXPECT_EQ(rtmp_fault("rtmp://[::1]/live", "key"), "");
    EXPECT_EQ(rtmp_fault("rtmp://[::1]:1935/live", "key"), "");
    EXPECT_EQ(rtmp_fault("rtmp://[::1]:x/live", "key"), "its port is no port's number");
}
