#include "beacon_web/board_view.h"
#include "beacon_web/client_list.h"
#include "beacon_web/live_text.h"

#include <gtest/gtest.h>

namespace {

const char *const two = R"([{"host":"10.0.0.7","port":40000,"timeout":250,"mode":0},)"
                        R"({"host":"192.168.1.30","port":5000,"timeout":9000,"mode":1}])";

bool tells_clients(const BoardView &view, TimePoint now) {
    return board_text(view, now).find("\"clients\":[") != std::string::npos;
}

} // namespace

TEST(ClientList, IsReadAsTheDaemonWritesIt) {
    const auto clients = parse_client_list(two);
    ASSERT_TRUE(clients);
    ASSERT_EQ(clients->size(), 2U);
    EXPECT_EQ(clients->at(0).address, "10.0.0.7");
    EXPECT_EQ(clients->at(0).port, 40000);
    EXPECT_EQ(clients->at(0).seconds, 0.25);
    EXPECT_FALSE(clients->at(0).is_data_only);
    EXPECT_TRUE(clients->at(1).is_data_only);
    EXPECT_EQ(client_list_words(*clients), "10.0.0.7:40000, 192.168.1.30:5000 (data only)");
}

TEST(ClientList, MayBeginWithACommaOrBeEmpty) {
    const auto clients =
        parse_client_list(R"([,{"host":"10.0.0.7","port":40000,"timeout":250,"mode":0}])");
    ASSERT_TRUE(clients);
    EXPECT_EQ(client_list_words(*clients), "10.0.0.7:40000");
    const auto none = parse_client_list("[]");
    ASSERT_TRUE(none);
    EXPECT_EQ(client_list_words(*none), "nobody");
}

TEST(ClientList, SomethingElseIsNone) {
    for (const std::string text : {"", "[", "[,", "{}", "[1]", "[{}]", "[[]]", "null", "[,,{}]",
                                   R"([{"host":1,"port":2,"timeout":3,"mode":0}])",
                                   R"([{"host":"a","port":"2","timeout":3,"mode":0}])",
                                   R"([{"host":"a","port":2,"timeout":"3","mode":0}])",
                                   R"([{"host":"a","port":2,"timeout":3,"mode":null}])"}) {
        EXPECT_FALSE(parse_client_list(text)) << text;
    }
    const std::string whole = two;
    for (size_t size = 0; size < whole.size(); ++size) {
        EXPECT_FALSE(parse_client_list(whole.substr(0, size))) << size;
    }
}

TEST(ClientList, StaysWhileItIsBeingWrittenAndGoesWithTheFile) {
    BoardView view;
    const TimePoint now = TimePoint{} + std::chrono::hours(1);
    view.status = StatusRecord{};
    view.status_at = now;
    EXPECT_FALSE(tells_clients(view, now));
    note_clients(view, two);
    EXPECT_TRUE(tells_clients(view, now));
    note_clients(view, "[");
    EXPECT_TRUE(tells_clients(view, now));
    EXPECT_FALSE(tells_clients(view, now + std::chrono::seconds(10))); // the daemon is silent
    note_clients(view, std::nullopt);
    EXPECT_FALSE(tells_clients(view, now));
}

TEST(BoardText, TellsNoNumberThatIsNotKnown) {
    BoardView view;
    view.status = StatusRecord{};
    view.status->storage_place = 2;
    view.status->free_megabytes = 83000;
    const auto has = [&view](const char *part) {
        return board_text(view, TimePoint{}).find(part) != std::string::npos;
    };
    EXPECT_FALSE(has("]],\"temperature\":"));
    EXPECT_TRUE(has("\"free_bytes\":83000000000.0"));
    EXPECT_TRUE(has("external, 83.0 GB free"));
    view.mount_info = "25 1 179:2 / / rw - ext4 /dev/root rw\n";
    EXPECT_FALSE(has("free_bytes"));
    EXPECT_TRUE(has("external, no drive mounted: -"));
    view.status->temperature = 48;
    EXPECT_TRUE(has("]],\"temperature\":48"));
}
