// What browsers send to the console, and what a board answers to what follows from it: whatever it
// is, the daemon gets no command that would end it.
#include "beacon_web/api.h"
#include "beacon_web/live_text.h"
#include "beacon_web/metrics.h"
#include "beacon_web/page_files.h"
#include "beacon_web/sound.h"
#include "client/command_check.h"
#include "input.h"

#include <array>
#include <cmath>
#include <nlohmann/json.hpp>

// The real files are made by the build.
std::span<const PageFile> page_files() {
    return {};
}

static void check_payload(const std::string &payload) {
    check(!payload.empty() && payload.size() <= 29988);
    if (payload[0] == '{' || payload[0] == '!') {
        check(check_command(payload).reason.empty());
    }
}

// A word that means something, now and then another.
template <size_t count>
static std::string word_of(Input &input, const std::array<const char *, count> &words) {
    const uint32_t which = input.byte();
    return which < words.size() ? words[which] : input.text();
}

static RequestHead take_head(Input &input) {
    RequestHead head;
    head.method = word_of(input, std::array{"GET", "HEAD", "POST", "PUT", "DELETE"});
    head.path = word_of(input, std::array{"/live", "/api/v1/status", "/api/v1/settings",
                                          "/api/v1/recording", "/api/v1/photo", "/api/v1/gimbal",
                                          "/api/v1/movement", "/api/v1/wifi-scan", "/api/v1/rc",
                                          "/api/v1/rc/calibration", "/api/v1/restart"});
    if (input.byte() % 4 == 0) {
        head.path = "/api/v1/settings/" +
                    word_of(input, std::array{"wlan", "ethernet", "streaming", "recording", "audio",
                                              "display", "internal_camera", "rc", "automovement"});
    }
    head.host =
        word_of(input, std::array{"localhost:8080", "10.1.2.3", "[::1]:8080", "board.local"});
    head.origin = input.byte() % 4 == 0 ? input.text() : "http://" + head.host;
    head.content_type = word_of(input, std::array{"application/json", "text/plain"});
    head.own_header = input.byte() % 4 == 0 ? input.text() : "1";
    head.query = input.byte() % 4 == 0 ? input.text() : "";
    head.is_upgrade = input.byte() % 4 == 0;
    return head;
}

// Is it the request of another site's page, by words of our own?
static bool is_foreign(const RequestHead &head) {
    return head.origin.find(head.host) == std::string::npos &&
           head.origin.size() == head.host.size();
}

static int refuse(const RequestHead &head) {
    const std::array<std::string, 1> more{"Drone.example"};
    const std::vector<std::string> names = allowed_names("Board", more);
    const int refusal = refusal_of(head, names);
    if (refusal == 0) {
        check(is_allowed_host(head.host, names) && head.host.size() <= 255);
        const bool changes = head.method != "GET" && head.method != "HEAD";
        check(!(changes || head.is_upgrade) || (!head.origin.empty() && !is_foreign(head)));
    }
    return refusal;
}

static void look(const BoardView &view, TimePoint now) {
    const nlohmann::json text = nlohmann::json::parse(board_text(view, now), nullptr, false);
    check(text.is_object() && text["type"] == "board");
    check(!metrics_text(view, 1, 2, now).empty());
}

struct Stage {
    BoardView view;
    GimbalHold gimbal;
    SoundQueue sound;
    JobQueue jobs;
    TimePoint now{};
    int next_browser = 0;
};

static void browse(Stage &stage, Input &input) {
    const RequestHead head = take_head(input);
    const std::string body = input.text();
    if (refuse(head) != 0 || head.is_upgrade) {
        return;
    }
    const Api api{stage.view, stage.gimbal, stage.jobs, input.byte() % 2 == 0, check_payload};
    const HttpReply reply = answer_api(api, head, body, stage.now);
    check((reply.status == 0) == (reply.job != 0));
    check(stage.jobs.jobs.size() <= most_jobs);
}

static void move(Stage &stage, Input &input) {
    const std::string message = input.text();
    if (const auto is_wanted = parse_sound_wish(message)) {
        want_sound(stage.sound, *is_wanted);
    }
    const std::optional<Sticks> sticks = parse_sticks(message);
    if (!sticks) {
        return;
    }
    for (const double value : *sticks) {
        check(std::isfinite(value) && std::abs(value) <= 1);
    }
    const void *browser = &stage.next_browser + input.byte() % 2;
    take_sticks(stage.gimbal, browser, *sticks, stage.now);
    if (input.byte() % 4 == 0) {
        let_go(stage.gimbal, browser);
    }
}

static void answer(Stage &stage, Input &input) {
    const uint32_t type = input.byte() % 6;
    const uint32_t sequence = input.number();
    const std::string payload = input.text();
    const auto *bytes = reinterpret_cast<const uint8_t *>(payload.data());
    const PacketView packet{static_cast<uint8_t>(type), sequence, {bytes, payload.size()}};
    note_packet(stage.view, packet, stage.now);
    add_sound(stage.sound, std::make_shared<std::string>(sound_message(packet.payload)));
    check(stage.sound.pieces.size() <= most_sound);
    show_packet(stage.jobs, packet, stage.now);
    look(stage.view, stage.now);
    menu_text(stage.view.menu_event);
}

// Time passes.
static void step(Stage &stage, Input &input) {
    stage.now += std::chrono::milliseconds(input.word());
    for (const std::string &payload : step_jobs(stage.jobs, stage.now).payloads) {
        check_payload(payload);
    }
    step_gimbal(stage.gimbal, stage.now);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input input{data, size};
    Stage stage;
    void (*const acts[])(Stage &, Input &) = {browse, browse, move, answer, step};
    while (input.left > 0) {
        acts[input.byte() % std::size(acts)](stage, input);
    }
    give_up(stage.jobs, stage.now);
    return 0;
}
