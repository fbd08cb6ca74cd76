#include "beacon_web/live_text.h"

#include "client/answers.h"
#include "client/status_json.h"
#include "client/status_words.h"

#include <nlohmann/json.hpp>

static Json streams_json(const BoardView &view) {
    constexpr std::array names = {"data", "video", "audio", "camera", "file"};
    static_assert(names.size() == stream_count);
    Json streams = Json::object();
    for (size_t i = 0; i < stream_count; ++i) {
        streams[names[i]] = {{"packets", view.streams[i].packets},
                             {"bytes", view.streams[i].bytes}};
    }
    return streams;
}

static Json clients_json(const std::vector<RegisteredClient> &clients) {
    Json list = Json::array();
    for (const RegisteredClient &client : clients) {
        list.push_back({{"address", client.address},
                        {"port", client.port},
                        {"seconds", client.seconds},
                        {"data_only", client.is_data_only}});
    }
    return list;
}

std::string board_text(const BoardView &view, TimePoint now) {
    Json text = {
        {"type", "board"},
        {"address", view.address},
        {"present", is_present(view, now)},
        {"picture_problem", picture_problem(view, now)},
        {"sound_problem", sound_problem(view, now)},
        {"pictures", view.pictures},
        {"lost", view.sequence.lost},
        {"streams", streams_json(view)},
        {"status", nullptr},
    };
    if (view.status) {
        text["seconds_since_status"] = seconds_between(view.status_at, now);
        text["status"] = Json::parse(status_json(*view.status), nullptr, false);
        text["words"] = status_words(*view.status, drive_of_view(view));
        if (const std::optional<int> degrees = temperature(view)) {
            text["temperature"] = *degrees;
        }
        if (const std::optional<double> bytes = free_bytes(view)) {
            text["free_bytes"] = *bytes;
        }
    }
    if (view.clients && is_present(view, now)) {
        text["clients"] = clients_json(*view.clients);
        text["words"].push_back({"Registered", client_list_words(*view.clients)});
    }
    return json_text(text);
}

std::string video_text(const MovieStart &start) {
    return json_text({{"type", "video"},
                      {"codec", start.codec},
                      {"width", start.width},
                      {"height", start.height}});
}

std::string menu_text(int event) {
    return json_text({{"type", "menu"}, {"event", event}});
}

std::string console_text(bool has_login) {
    return json_text({{"type", "console"}, {"login", has_login}});
}
