// A client's requests: when they are sent, and which packets answer them.
#include "client/rc_channels.h"
#include "client/registration.h"
#include "client/request.h"
#include "client/scan.h"
#include "client/section.h"

#include "net/relay_packet.h"

#include <gtest/gtest.h>
#include <string_view>

static TimePoint at(double seconds) {
    return TimePoint{} + from_seconds(seconds);
}

// Passes a data packet with that payload to a request.
static bool offer(const Request &request, std::string_view payload) {
    return request.take(
        {relay_type_data, 0, {reinterpret_cast<const uint8_t *>(payload.data()), payload.size()}});
}

TEST(Registration, IsSentAtOnceAndThenEveryTwoSeconds) {
    Registration registration;
    EXPECT_FALSE(due_registration(registration, at(100)));
    EXPECT_EQ(next_registration(registration), TimePoint::max());
    register_for(registration, Streams::data_only, at(100));
    EXPECT_EQ(due_registration(registration, at(100)), std::string("\2\1"));
    EXPECT_EQ(next_registration(registration), at(102));
    EXPECT_FALSE(due_registration(registration, at(101.9)));
    EXPECT_EQ(due_registration(registration, at(102)), std::string("\2\1"));
}

TEST(Registration, ChangesItsStreamsAtOnce) {
    Registration registration;
    register_for(registration, Streams::data_only, at(100));
    due_registration(registration, at(100));
    register_for(registration, Streams::everything, at(100.5));
    EXPECT_EQ(due_registration(registration, at(100.5)), std::string("\2\0", 2));
    register_for(registration, Streams::none, at(101));
    EXPECT_FALSE(due_registration(registration, at(200)));
    EXPECT_EQ(leave_payload(), "\3");
}

TEST(Registration, ComesSoonerAfterARefusal) {
    Registration registration;
    register_for(registration, Streams::everything, at(100));
    due_registration(registration, at(100));
    note_refusal(registration, at(100.1));
    EXPECT_EQ(next_registration(registration), at(100.6));
    note_refusal(registration, at(100.5)); // does not delay it
    EXPECT_EQ(next_registration(registration), at(100.6));
    note_refusal(registration, at(100.7));
    EXPECT_TRUE(due_registration(registration, at(100.7)));
}

TEST(Request, IsSentAnewUntilItsTimeIsOver) {
    Request request = make_request("x", 3.0, 2, [](const PacketView &) { return false; });
    EXPECT_EQ(step_request(request, at(100)), RequestStep::send);
    EXPECT_EQ(request.due, at(101.5));
    EXPECT_EQ(step_request(request, at(101.4)), RequestStep::wait);
    EXPECT_EQ(step_request(request, at(101.5)), RequestStep::send);
    EXPECT_EQ(step_request(request, at(102.9)), RequestStep::wait);
    EXPECT_EQ(step_request(request, at(103)), RequestStep::silent);
}

TEST(Request, ForTheInfoTakesItAndNothingElse) {
    BoardInfo info{};
    const Request request = info_request(1, 1, info);
    EXPECT_EQ(request.payload, std::string(1, '\0'));
    EXPECT_FALSE(offer(request, "telemetry"));
    std::string payload("\1\x9\0\2", 4);
    EXPECT_TRUE(offer(request, payload + "My board" + std::string(32, ' ')));
    EXPECT_EQ(info.name, "My board");
    EXPECT_EQ(info.client_count, 2);
}

constexpr const char *ethernet_answer =
    R"({"cmd":"config_answer","enabled":0,"ip":"10.0.0.7","mask":"255.0.0.0"})";

TEST(SectionRequest, TakesTheSectionsMembers) {
    SectionAnswer answer;
    const Request request = section_request("ethernet", 1, answer);
    EXPECT_EQ(request.payload, R"({"cmd":"config_request","param":"ethernet"})");
    EXPECT_EQ(request.sends_left, 3);
    EXPECT_FALSE(offer(request, R"({"cmd":"wlanscan","param":"int","value":""})"));
    EXPECT_TRUE(offer(request, ethernet_answer));
    EXPECT_EQ(answer.result, SectionResult::settings);
    EXPECT_EQ(json_text(answer.settings), R"({"enabled":0,"ip":"10.0.0.7","mask":"255.0.0.0"})");
}

TEST(SectionRequest, PassesOverASecondAnswerToAnotherQuestion) {
    SectionAnswer answer;
    const Request request = section_request("recording", 1, answer);
    EXPECT_FALSE(offer(request, ethernet_answer));
    EXPECT_EQ(answer.result, SectionResult::none);
}

TEST(SectionRequest, TellsWhyThereAreNoSettings) {
    SectionAnswer answer;
    EXPECT_TRUE(offer(section_request("nope", 1, answer), R"({"cmd":"config_answer",})"));
    EXPECT_EQ(answer.result, SectionResult::unknown);
    EXPECT_TRUE(offer(section_request("wifi", 1, answer), R"({"cmd":"config_answer","a":)"));
    EXPECT_EQ(answer.result, SectionResult::unreadable);
    // The display query gives a second client an empty answer, and may answer the next request.
    EXPECT_FALSE(offer(section_request("display", 1, answer), R"({"cmd":"config_answer",})"));
    EXPECT_EQ(answer.result, SectionResult::busy);
}

TEST(ScanRequest, TakesTheNames) {
    ScanAnswer answer;
    const Request request = scan_request("int", 20, answer);
    EXPECT_EQ(request.payload, R"({"cmd":"wlan","param":"scan","value":"int"})");
    EXPECT_EQ(request.sends_left, 1);
    EXPECT_FALSE(offer(request, ethernet_answer));
    EXPECT_TRUE(offer(request, R"({"cmd":"wlanscan","param":"int","value":"Home,,K\xc3\xa4se"})"));
    EXPECT_TRUE(answer.is_readable);
    EXPECT_EQ(answer.names, (std::vector<std::string>{"Home", "", "Käse"}));
}

TEST(ScanRequest, TellsAnAnswerThatCannotBeRead) {
    ScanAnswer answer;
    EXPECT_TRUE(offer(scan_request("int", 20, answer), R"({"cmd":"wlanscan","param":)"));
    EXPECT_FALSE(answer.is_readable);
}

TEST(ChannelsRequest, TakesBothReceiversInAnyOrder) {
    ReceiverAnswers receivers;
    const Request request = channels_request(1, receivers);
    EXPECT_FALSE(offer(request, R"({"cmd":"rc2","state":1,"ch":[]})"));
    EXPECT_FALSE(offer(request, R"({"cmd":"rc2","state":1,"ch":[]})"));
    EXPECT_FALSE(offer(request, R"({"cmd":"rc1","state":1)"));
    EXPECT_TRUE(offer(request, R"({"cmd":"rc1","state":2,"ch":[]})"));
    EXPECT_EQ(receivers[0].state, rc_calibrating);
    EXPECT_EQ(receivers[1].state, rc_present);
}
