#include "beacon_web/gimbal_hold.h"
#include "beacon_web/job_queue.h"
#include "beacon_web/metrics.h"
#include "beacon_web/rc_calibration.h"
#include "beacon_web/setting_change.h"

#include "client/packet.h"

#include <gtest/gtest.h>

namespace {

const TimePoint start = TimePoint{} + std::chrono::hours(1);

TimePoint later(int milliseconds) {
    return start + std::chrono::milliseconds(milliseconds);
}

const std::string zeros = gimbal_payload(0, 0, 0);
const int one = 0;
const int other = 0;

} // namespace

TEST(GimbalHold, StopsWhenTheHolderFallsSilent) {
    GimbalHold hold;
    EXPECT_EQ(take_sticks(hold, &one, {0.5, 0, 0}, start), gimbal_payload(0.5, 0, 0));
    EXPECT_FALSE(step_gimbal(hold, later(299)));
    for (int i = 0; i < zero_repeats; ++i) {
        EXPECT_EQ(step_gimbal(hold, later(350 + i * 50)), zeros);
    }
    EXPECT_FALSE(step_gimbal(hold, later(900)));
}

TEST(GimbalHold, StopsWhenTheHolderLetsGoOrLeaves) {
    GimbalHold hold;
    take_sticks(hold, &one, {0, -1, 0}, start);
    EXPECT_EQ(take_sticks(hold, &one, {0, 0, 0}, later(10)), zeros);
    EXPECT_EQ(step_gimbal(hold, later(60)), zeros);
    take_sticks(hold, &one, {0, -1, 0}, later(70));
    EXPECT_FALSE(step_gimbal(hold, later(80)));
    let_go(hold, &one);
    EXPECT_EQ(step_gimbal(hold, later(100)), zeros);
}

TEST(GimbalHold, OthersAtRestDoNotDisturbTheHolder) {
    GimbalHold hold;
    take_sticks(hold, &one, {1, 0, 0}, start);
    EXPECT_FALSE(take_sticks(hold, &other, {0, 0, 0}, later(50)));
    let_go(hold, &other);
    EXPECT_FALSE(step_gimbal(hold, later(100)));
    EXPECT_EQ(take_sticks(hold, &other, {0, 1, 0}, later(150)), gimbal_payload(0, 1, 0));
    EXPECT_EQ(hold.holder, &other);
}

TEST(GimbalHold, NobodyHoldsItAtFirst) {
    GimbalHold hold;
    EXPECT_FALSE(step_gimbal(hold, start));
    EXPECT_FALSE(take_sticks(hold, &one, {0, 0, 0}, start));
}

namespace {

Job asking(const std::string &payload, char answer) {
    Job job;
    job.request = make_request(payload, 1.0, 2, [answer](const PacketView &packet) {
        return payload_text(packet) == std::string(1, answer);
    });
    job.go_on = [](Job &, bool is_answered, TimePoint) -> std::optional<HttpReply> {
        return text_reply(is_answered ? 200 : 504, "");
    };
    return job;
}

PacketView packet_of(const std::string &text) {
    return {0, 0, {reinterpret_cast<const uint8_t *>(text.data()), text.size()}};
}

} // namespace

TEST(JobQueue, AsksOneQuestionAtATime) {
    JobQueue queue;
    const uint64_t first = add_job(queue, asking("first", 'a'));
    const uint64_t second = add_job(queue, asking("second", 'b'));
    EXPECT_EQ(step_jobs(queue, start).payloads, std::vector<std::string>{"first"});
    const std::string a = "a";
    const std::string b = "b";
    EXPECT_FALSE(show_packet(queue, packet_of(b), start));
    const auto finished = show_packet(queue, packet_of(a), start);
    ASSERT_TRUE(finished);
    EXPECT_EQ(finished->id, first);
    EXPECT_EQ(finished->reply.status, 200);
    EXPECT_EQ(step_jobs(queue, start).payloads, std::vector<std::string>{"second"});
    EXPECT_EQ(show_packet(queue, packet_of(b), start)->id, second);
    EXPECT_TRUE(step_jobs(queue, start).payloads.empty());
}

TEST(JobQueue, GivesUpInTime) {
    JobQueue queue;
    add_job(queue, asking("x", 'x'));
    EXPECT_EQ(step_jobs(queue, start).payloads.size(), 1U);
    EXPECT_EQ(step_jobs(queue, later(600)).payloads.size(), 1U);
    const JobWork work = step_jobs(queue, later(1200));
    ASSERT_EQ(work.finished.size(), 1U);
    EXPECT_EQ(work.finished[0].reply.status, 504);
}

TEST(JobQueue, SendsItsCommandsBeforeItEnds) {
    JobQueue queue;
    Job job = asking("x", 'x');
    job.go_on = [](Job &going, bool, TimePoint) -> std::optional<HttpReply> {
        going.commands = {"command"};
        return text_reply(202, "");
    };
    add_job(queue, std::move(job));
    step_jobs(queue, start);
    const std::string x = "x";
    EXPECT_FALSE(show_packet(queue, packet_of(x), start));
    const JobWork work = step_jobs(queue, start);
    EXPECT_EQ(work.payloads, std::vector<std::string>{"command"});
    ASSERT_EQ(work.finished.size(), 1U);
    EXPECT_EQ(work.finished[0].reply.status, 202);
}

TEST(JobQueue, IsBounded) {
    JobQueue queue;
    for (size_t i = 0; i < most_jobs; ++i) {
        EXPECT_NE(add_job(queue, asking("x", 'x')), 0U);
    }
    EXPECT_EQ(add_job(queue, asking("x", 'x')), 0U);
}

namespace {

// Answers the first job's question: the state of RC1, and where its only stick is and was.
std::optional<FinishedJob> answer_channels(JobQueue &queue, TimePoint now, int state, int raw,
                                           int centre) {
    const std::string channel = R"("ch":[{"raw":)" + std::to_string(raw) +
                                R"(,"min":1000,"max":1000,"c":)" + std::to_string(centre) + "}]}";
    const std::string second = R"({"cmd":"rc2","state":0,)" + channel;
    const std::string mine = R"({"cmd":"rc1","state":)" + std::to_string(state) + "," + channel;
    show_packet(queue, packet_of(second), now);
    return show_packet(queue, packet_of(mine), now);
}

} // namespace

TEST(CalibrationJob, IsRefusedUnlessTheReceiverIsHeard) {
    for (const auto &[state, raw] : {std::pair(rc_absent, 1500), std::pair(rc_present, 0)}) {
        JobQueue queue;
        add_job(queue, calibration_job(CalibrationStep::begin_ends, 1));
        step_jobs(queue, start);
        const auto finished = answer_channels(queue, start, state, raw, 1500);
        ASSERT_TRUE(finished);
        EXPECT_EQ(finished->reply.status, 409);
        EXPECT_TRUE(step_jobs(queue, later(1)).payloads.empty());
    }
}

TEST(CalibrationJob, SendsItsCommandUntilItIsTaken) {
    const std::string command = calibration_command(CalibrationStep::begin_ends, 1);
    JobQueue queue;
    add_job(queue, calibration_job(CalibrationStep::begin_ends, 1));
    EXPECT_EQ(step_jobs(queue, start).payloads.size(), 1U);
    for (const int time : {0, 1000}) {
        EXPECT_FALSE(answer_channels(queue, later(time), rc_present, 1500, 1500));
        EXPECT_EQ(step_jobs(queue, later(time)).payloads, std::vector<std::string>{command});
        EXPECT_EQ(step_jobs(queue, later(time + 900)).payloads.size(), 1U) << "the question";
    }
    const auto finished = answer_channels(queue, later(2000), rc_calibrating, 1500, 1500);
    ASSERT_TRUE(finished);
    EXPECT_EQ(finished->reply.status, 200);
}

TEST(CalibrationJob, GivesUpWhenItIsNeverTaken) {
    JobQueue queue;
    add_job(queue, calibration_job(CalibrationStep::take_centres, 1));
    step_jobs(queue, start);
    std::optional<FinishedJob> finished;
    int time = 0;
    for (; !finished && time < 20000; time += 1000) {
        finished = answer_channels(queue, later(time), rc_present, 1500, 1200);
        step_jobs(queue, later(time));
        step_jobs(queue, later(time + 900));
    }
    ASSERT_TRUE(finished);
    EXPECT_EQ(finished->reply.status, 504);
}

namespace {

Json wifi_answer() {
    return {
        {"sys_country", "DE"}, {"ap_iface", "int"},   {"ap_ssid", "Board"}, {"ap_psk", "secret99"},
        {"ap_mode", 5},        {"ap_channel", 36},    {"ap_country", "DE"}, {"ap_ip", "10.0.0.1"},
        {"wifi_iface", "ext"}, {"wifi_ssid", "Home"}, {"wifi_psk", ""},     {"wifi_ip", ""},
        {"wifi_s_enabled", 0}, {"wifi_s_addr", ""},   {"wifi_s_mask", ""},  {"camera_iface", ""},
        {"camera_ssid", ""},   {"camera_psk", ""},    {"camera_ip", ""}};
}

Json field_named(const Json &section, const std::string &key) {
    for (const Json &field : section["fields"]) {
        if (field["key"] == key) {
            return field;
        }
    }
    return {};
}

} // namespace

TEST(SettingChange, PassPhrasesAreNotShown) {
    const Json section = section_json("wifi", wifi_answer(), false);
    EXPECT_EQ(json_text(section).find("secret99"), std::string::npos);
    EXPECT_EQ(field_named(section, "ap_psk")["is_set"], true);
    EXPECT_EQ(field_named(section, "wifi_psk")["is_set"], false);
    EXPECT_EQ(field_named(section, "ap_ssid")["value"], "Board");
    EXPECT_EQ(field_named(section, "ap_ssid")["risky"], true);
    EXPECT_EQ(section["more"]["ap_ip"], "10.0.0.1");
}

TEST(SettingChange, TheRowIsSentWithWhatIsKept) {
    const SettingPlan plan = plan_change("wifi", wifi_answer(), {{"wifi_ssid", "Office"}}, false);
    ASSERT_EQ(plan.commands.size(), 1U);
    const auto command = parse_answer(plan.commands[0]);
    ASSERT_TRUE(command);
    EXPECT_EQ((*command)["param"], "wlan");
    EXPECT_EQ((*command)["value5"], "Office");
    EXPECT_EQ((*command)["value9"], "secret99");
    Json taken = wifi_answer();
    EXPECT_EQ(not_taken("wifi", taken, plan).size(), 1U);
    taken["wifi_ssid"] = "Office";
    EXPECT_TRUE(not_taken("wifi", taken, plan).empty());
}

TEST(SettingChange, WrongValuesAreToldAndNothingIsSent) {
    const std::pair<const char *, Json> wrong[] = {
        {"ap_channel", "lots"}, {"ap_channel", 1.5},   {"ap_ssid", Json::array()},
        {"ap_ssid", "a\"b"},    {"ap_iface", "eth0"},  {"nothing", "1"},
        {"ap_ip", "10.0.0.2"},  {"wifi_psk", "short"}, {"device_name", "of another section"},
        {"ap_ssid", nullptr},
    };
    for (const auto &[key, value] : wrong) {
        const SettingPlan plan =
            plan_change("wifi", wifi_answer(), {{key, value}, {"wifi_ssid", "x"}}, false);
        EXPECT_TRUE(plan.commands.empty()) << key << value;
        EXPECT_TRUE(plan.problems.contains(key)) << key << value;
    }
}

TEST(SettingChange, CameraOptionsNeedPermission) {
    const Json answer = {{"enabled", 0}, {"camera_params", "-w 640"}};
    EXPECT_TRUE(
        field_named(section_json("camera", answer, false), "internal_camera_params").empty());
    EXPECT_FALSE(
        field_named(section_json("camera", answer, true), "internal_camera_params").empty());
    const Json change = {{"internal_camera_params", "-w 320"}};
    EXPECT_TRUE(plan_change("camera", answer, change, false).commands.empty());
    EXPECT_EQ(plan_change("camera", answer, change, true).commands.size(), 1U);
}

TEST(SettingChange, WhatEndsTheDaemonIsKnown) {
    const Json answer = {{"app_type", 6}, {"device_name", "Rear"}};
    EXPECT_TRUE(plan_change("info", answer, {{"device_name", "Front"}}, false).ends_daemon);
    EXPECT_FALSE(
        plan_change("system", {{"fs_rw", 0}, {"make_preview", 0}}, {{"make_preview", true}}, false)
            .ends_daemon);
}

TEST(Metrics, CountersEndInTotalAndValuesAreThere) {
    BoardView view;
    view.status = StatusRecord{};
    view.status->temperature = -5;
    view.status->storage_place = 1;
    view.status->free_megabytes = 12345;
    view.status_at = start;
    view.streams[1] = {7, 9000};
    const std::string text = metrics_text(view, 3, 2, later(500));
    for (const char *line :
         {"beacon_up 1\n", "beacon_temperature_celsius -5\n",
          "beacon_storage_free_bytes{place=\"internal\"} 12345000000\n",
          "beacon_stream_bytes_total{stream=\"video\"} 9000\n", "beacon_console_viewers 3\n",
          "beacon_pictures_dropped_total 2\n", "beacon_status_age_seconds 0.5\n"}) {
        EXPECT_NE(text.find(line), std::string::npos) << line;
    }
    const std::string nothing = metrics_text({}, 0, 0, start);
    EXPECT_NE(nothing.find("beacon_up 0\n"), std::string::npos);
    EXPECT_EQ(nothing.find("temperature"), std::string::npos);
}

TEST(Metrics, WhatIsNotKnownIsLeftOut) {
    BoardView view;
    view.status = StatusRecord{};
    view.status->storage_place = 2;
    view.status->free_megabytes = 83000;
    const auto has = [&view](const char *name) {
        return metrics_text(view, 0, 0, start).find(name) != std::string::npos;
    };
    EXPECT_FALSE(has("temperature")); // 0: it could not be read
    EXPECT_TRUE(has("storage_free"));
    view.mount_info = "25 1 179:2 / / rw - ext4 /dev/root rw\n";
    EXPECT_FALSE(has("storage_free")); // it is the system's
    view.mount_info += "30 25 8:1 / /media rw - vfat /dev/sda1 rw\n";
    EXPECT_TRUE(has("storage_free"));
    view.status->storage_place = 0;
    EXPECT_FALSE(has("storage_free"));
}
