#include "beacon_web/board_view.h"
#include "beacon_web/http_reply.h"
#include "beacon_web/request_check.h"
#include "beacon_web/sound.h"

#include "net/relay_packet.h"

#include <array>
#include <gtest/gtest.h>

namespace {

const std::vector<std::string> names =
    allowed_names("Board", std::vector<std::string>{"cam.example.org"});

RequestHead page_request() {
    RequestHead head;
    head.method = "GET";
    head.path = "/";
    head.host = "192.168.1.10:8080";
    return head;
}

RequestHead change() {
    RequestHead head = page_request();
    head.method = "POST";
    head.path = "/api/v1/photo";
    head.origin = "http://192.168.1.10:8080";
    head.content_type = "application/json; charset=utf-8";
    head.own_header = "1";
    return head;
}

StatusRecord status_with(bool has_data, bool has_video) {
    StatusRecord status{};
    status.data_source = has_data;
    status.video = has_video;
    return status;
}

} // namespace

TEST(RequestCheck, KnowsTheHostsOfTheConsole) {
    for (const char *host : {"127.0.0.1", "10.0.0.1:8080", "[::1]:8080", "[fe80::1]", "localhost",
                             "LocalHost:1", "board", "board.local:8080", "cam.example.org"}) {
        EXPECT_TRUE(is_allowed_host(host, names)) << host;
    }
    for (const char *host :
         {"", "evil.example", "board.evil.example", "127.0.0.1.evil.example", "127.0.0.1:", ":80",
          "127.0.0.1:80x", "[::1", "::1", "localhost:123456", "1.2.3", "local host"}) {
        EXPECT_FALSE(is_allowed_host(host, names)) << host;
    }
    EXPECT_FALSE(is_allowed_host(std::string("localhost\0x", 11), names));
}

TEST(RequestCheck, AForeignNameIsRefused) {
    RequestHead head = page_request();
    EXPECT_EQ(refusal_of(head, names), 0);
    head.host = "evil.example";
    EXPECT_EQ(refusal_of(head, names), 421);
    head.host = "";
    EXPECT_EQ(refusal_of(head, names), 421);
}

TEST(RequestCheck, AChangeNeedsOriginHeaderAndType) {
    EXPECT_EQ(refusal_of(change(), names), 0);
    RequestHead head = change();
    head.origin = "";
    EXPECT_EQ(refusal_of(head, names), 403);
    head.origin = "http://192.168.1.10:8081";
    EXPECT_EQ(refusal_of(head, names), 403);
    head.origin = "null";
    EXPECT_EQ(refusal_of(head, names), 403);
    head = change();
    head.own_header = "";
    EXPECT_EQ(refusal_of(head, names), 403);
    head = change();
    head.content_type = "text/plain";
    EXPECT_EQ(refusal_of(head, names), 415);
}

TEST(RequestCheck, AWebSocketNeedsOriginAndItsPath) {
    RequestHead head = page_request();
    head.is_upgrade = true;
    head.path = "/live";
    EXPECT_EQ(refusal_of(head, names), 403);
    head.origin = "https://192.168.1.10:8080";
    EXPECT_EQ(refusal_of(head, names), 0);
    head.path = "/";
    EXPECT_EQ(refusal_of(head, names), 404);
}

TEST(RequestCheck, OtherMethodsAndLongPathsAreRefused) {
    RequestHead head = page_request();
    head.method = "DELETE";
    EXPECT_EQ(refusal_of(head, names), 405);
    head = page_request();
    head.path = "/" + std::string(2000, 'a');
    EXPECT_EQ(refusal_of(head, names), 414);
}

TEST(HttpReply, ThePageIsThereAndNothingElse) {
    EXPECT_EQ(page_reply("/").status, 200);
    EXPECT_EQ(page_reply("/").type, "text/html; charset=utf-8");
    EXPECT_EQ(page_reply("/app.js").type, "text/javascript; charset=utf-8");
    for (const char *path : {"", "/app", "/../app.js", "//app.js", "/etc/passwd"}) {
        EXPECT_EQ(page_reply(path).status, 404) << path;
    }
    for (const PageFile &file : page_files()) {
        ASSERT_GT(file.gzip.size(), 20U);
        EXPECT_EQ(file.gzip[0], 0x1F);
        EXPECT_EQ(file.gzip[1], 0x8B);
    }
}

TEST(HttpReply, AProblemIsJson) {
    EXPECT_EQ(error_reply(404, "no \"x\\\n").body, "{\"error\":\"no \\\"x\\\\ \"}\n");
}

TEST(BoardView, SaysWhyThereIsNoPicture) {
    BoardView view;
    view.address = "board:5252";
    TimePoint now{};
    now += std::chrono::hours(1);
    EXPECT_EQ(picture_problem(view, now), "No daemon answers at board:5252.");
    note_refused(view);
    EXPECT_EQ(picture_problem(view, now), "No daemon runs at board:5252.");
    view.problem = "no route";
    EXPECT_EQ(picture_problem(view, now), "There is no way to board:5252: no route.");
    view = {};
    view.status = status_with(false, false);
    view.status_at = now;
    EXPECT_EQ(picture_problem(view, now), "No camera's program runs on the board.");
    view.status = status_with(true, false);
    EXPECT_EQ(picture_problem(view, now), "The camera's program sends no video.");
    view.status = status_with(true, true);
    EXPECT_EQ(picture_problem(view, now), "Waiting for the camera's next key picture.");
    view.pictures = 1;
    view.picture_at = now;
    EXPECT_EQ(picture_problem(view, now), "");
    now += std::chrono::seconds(20);
    EXPECT_EQ(picture_problem(view, now), "The board has been silent for 20 s.");
}

TEST(BoardView, SaysWhyThereIsNoSound) {
    BoardView view;
    const TimePoint now = TimePoint{} + std::chrono::hours(1);
    const std::string none =
        "The board sends no sound: it is off in the settings (video), or no program has any.";
    EXPECT_EQ(sound_problem(view, now), "No sound comes while the board does not answer.");
    view.status = status_with(true, true);
    view.status_at = now;
    EXPECT_EQ(sound_problem(view, now), none);
    const std::array<uint8_t, 640> samples{};
    note_packet(view, {relay_type_audio, 1, samples}, now);
    EXPECT_EQ(sound_problem(view, now), "");
    EXPECT_EQ(sound_problem(view, now + std::chrono::seconds(2)), none);
    note_packet(view, {relay_type_audio, 2, std::span(samples).first(638)}, now);
    EXPECT_EQ(sound_problem(view, now),
              "The board's sound is of a kind that the console cannot play.");
}

TEST(RequestCheck, WhatIsNestedDeeplyIsRefused) {
    EXPECT_TRUE(is_nested_deeply(std::string(21, '[')));
    EXPECT_TRUE(
        is_nested_deeply(R"({"a":)" + std::string(10, '[') + "{\"b\\\"\":" + std::string(10, '[')));
    std::string flat = "[";
    for (int i = 0; i < 100; ++i) {
        flat += R"({"a":["[[[[\"{{{{"]},)";
    }
    EXPECT_FALSE(is_nested_deeply(flat));
    EXPECT_FALSE(is_nested_deeply(std::string(20, '[')));
    EXPECT_FALSE(is_nested_deeply(""));
}

TEST(Sound, IsQueuedOnlyWhileItIsWanted) {
    SoundQueue queue;
    const auto piece = std::make_shared<std::string>("one");
    add_sound(queue, piece);
    EXPECT_EQ(next_sound(queue), nullptr);
    want_sound(queue, true);
    add_sound(queue, piece);
    EXPECT_EQ(next_sound(queue), piece);
    EXPECT_EQ(next_sound(queue), nullptr);
    add_sound(queue, piece);
    want_sound(queue, false);
    EXPECT_EQ(next_sound(queue), nullptr);
}

TEST(Sound, TheOldestIsDroppedForWhoIsTooSlow) {
    SoundQueue queue;
    want_sound(queue, true);
    for (size_t i = 0; i < most_sound + 3; ++i) {
        add_sound(queue, std::make_shared<std::string>(std::to_string(i)));
    }
    EXPECT_EQ(queue.pieces.size(), most_sound);
    EXPECT_EQ(*next_sound(queue), "3");
}

TEST(Sound, AMessageBeginsWithItsSize) {
    const std::array<uint8_t, 500> samples = {1, 2};
    const std::string message = sound_message(samples);
    EXPECT_EQ(message.substr(0, 10), std::string("\0\0\1\374sowt\1\2", 10));
    EXPECT_EQ(message.size(), 508U);
}

TEST(Sound, AWishIsABoolean) {
    EXPECT_EQ(parse_sound_wish(R"({"sound":true})"), true);
    EXPECT_EQ(parse_sound_wish(R"({"sound":false})"), false);
    for (const char *text : {"", "true", "[true]", "{}", R"({"sound":1})", R"({"sound":"true"})",
                             R"({"gimbal":[0,0,0]})", R"({"sound":)"}) {
        EXPECT_FALSE(parse_sound_wish(text)) << text;
    }
}
