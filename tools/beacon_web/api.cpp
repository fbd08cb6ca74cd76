#include "beacon_web/api.h"

#include "beacon_web/display_mode.h"
#include "beacon_web/live_text.h"
#include "beacon_web/rc_calibration.h"
#include "beacon_web/setting_change.h"
#include "client/answers.h"
#include "client/command_text.h"
#include "client/packet.h"
#include "client/rc_channels.h"
#include "client/scan.h"
#include "client/section.h"
#include "client/setting_rows.h"

#include <memory>
#include <nlohmann/json.hpp>

constexpr double section_seconds = 6.0;
constexpr double scan_seconds = 25.0;
constexpr double take_seconds = 0.4; // between two looks whether a change has been taken
constexpr int most_looks = 8;

static HttpReply problem_reply(int status, std::string_view text, const Json &fields) {
    return json_reply(status, json_text({{"error", text}, {"fields", fields}}));
}

static HttpReply silent_reply() {
    return error_reply(504, "the board does not answer");
}

static HttpReply waiting_reply(const Api &api, Job job) {
    HttpReply reply;
    reply.job = add_job(api.jobs, std::move(job));
    return reply.job == 0 ? error_reply(503, "too many requests are waiting for the board") : reply;
}

static HttpReply done_reply() {
    return json_reply(200, "{}");
}

static std::optional<HttpReply> section_problem(const SectionAnswer &answer, bool is_answered) {
    if (answer.result == SectionResult::settings) {
        return std::nullopt;
    }
    if (answer.result == SectionResult::unreadable) {
        return error_reply(502, "the board's answer cannot be read; a text in it may hold quotes");
    }
    if (answer.result == SectionResult::busy) {
        return error_reply(503, "another client is asking for this; try again");
    }
    return is_answered ? error_reply(404, "the board has no such section") : silent_reply();
}

static HttpReply read_section(const Api &api, const std::string &section) {
    const auto answer = std::make_shared<SectionAnswer>();
    const bool has_options = api.has_camera_options;
    Job job;
    job.request = section_request(section, section_seconds, *answer);
    job.go_on = [answer, section, has_options](Job &, bool is_answered,
                                               TimePoint) -> std::optional<HttpReply> {
        if (auto problem = section_problem(*answer, is_answered)) {
            return problem;
        }
        return json_reply(200, json_text(section_json(section, answer->settings, has_options)));
    };
    return waiting_reply(api, std::move(job));
}

namespace {

// A change of settings: what it is made of, and how far it is.
struct Change {
    std::string section;
    Json changes;
    bool has_options = false;
    SectionAnswer answer;
    SettingPlan plan;
    int looks = 0; // at the section since the commands were sent
};

} // namespace

static void look_again(Job &job, Change &change, TimePoint now) {
    change.answer = {};
    job.request = section_request(change.section, section_seconds, change.answer);
    job.request.due = now + from_seconds(take_seconds);
    ++change.looks;
}

// The section as it was has come: sends the change.
static std::optional<HttpReply> send_change(Job &job, Change &change, TimePoint now) {
    change.plan =
        plan_change(change.section, change.answer.settings, change.changes, change.has_options);
    if (!change.plan.problems.empty()) {
        return problem_reply(422, "not all values can be set", change.plan.problems);
    }
    job.commands = change.plan.commands;
    for (const std::string &command : job.commands) {
        if (command.size() > largest_client_payload) {
            return error_reply(413, "the values are longer than the board reads");
        }
    }
    if (change.plan.ends_daemon) {
        return json_reply(202, R"({"restarts":true})");
    }
    look_again(job, change, now);
    return std::nullopt;
}

static std::optional<HttpReply> go_on_with_change(Job &job, Change &change, bool is_answered,
                                                  TimePoint now) {
    if (auto problem = section_problem(change.answer, is_answered)) {
        return change.looks == 0 ? problem
                                 : error_reply(504, "sent, but the board does not answer now");
    }
    if (change.looks == 0) {
        return send_change(job, change, now);
    }
    const Json missing = not_taken(change.section, change.answer.settings, change.plan);
    if (missing.empty()) {
        return json_reply(200, json_text(section_json(change.section, change.answer.settings,
                                                      change.has_options)));
    }
    if (change.looks >= most_looks) {
        return problem_reply(409, "the board did not take all values", missing);
    }
    look_again(job, change, now);
    return std::nullopt;
}

static HttpReply change_section(const Api &api, const std::string &section, const Json &changes) {
    const auto change = std::make_shared<Change>();
    change->section = section;
    change->changes = changes;
    change->has_options = api.has_camera_options;
    Job job;
    job.request = section_request(section, section_seconds, change->answer);
    job.go_on = [change](Job &going, bool is_answered, TimePoint now) {
        return go_on_with_change(going, *change, is_answered, now);
    };
    return waiting_reply(api, std::move(job));
}

static HttpReply scan_networks(const Api &api, const Json &body) {
    const std::string interface = value_text(body.value("interface", Json("")));
    if (interface != "int" && interface != "ext") {
        return error_reply(422, "\"interface\" has to be \"int\" or \"ext\"");
    }
    const auto answer = std::make_shared<ScanAnswer>();
    Job job;
    job.request = scan_request(interface, scan_seconds, *answer);
    job.go_on = [answer](Job &, bool is_answered, TimePoint) -> std::optional<HttpReply> {
        if (!is_answered || !answer->is_readable) {
            return silent_reply();
        }
        return json_reply(200, json_text({{"names", answer->names}}));
    };
    return waiting_reply(api, std::move(job));
}

static Json receiver_json(const ReceiverAnswer &receiver) {
    Json channels = Json::array();
    for (const ChannelAnswer &channel : receiver.channels) {
        channels.push_back({{"raw", channel.raw},
                            {"min", channel.min},
                            {"centre", channel.centre},
                            {"max", channel.max},
                            {"value", channel.value},
                            {"function", function_text(channel.function)}});
    }
    return {{"state", receiver.state}, {"channels", channels}};
}

static HttpReply read_receivers(const Api &api) {
    const auto receivers = std::make_shared<ReceiverAnswers>();
    Job job;
    job.request = channels_request(section_seconds, *receivers);
    job.go_on = [receivers](Job &, bool is_answered, TimePoint) -> std::optional<HttpReply> {
        if (!is_answered) {
            return silent_reply();
        }
        const Json list = {receiver_json((*receivers)[0]), receiver_json((*receivers)[1])};
        return json_reply(200, json_text({{"receivers", list}}));
    };
    return waiting_reply(api, std::move(job));
}

static HttpReply calibrate(const Api &api, const Json &body) {
    constexpr std::pair<const char *, CalibrationStep> steps[] = {
        {"begin_ends", CalibrationStep::begin_ends},
        {"finish_ends", CalibrationStep::finish_ends},
        {"take_centres", CalibrationStep::take_centres},
    };
    const Json receiver = body.value("receiver", Json());
    for (const auto &[name, step] : steps) {
        if (body.value("step", Json()) == Json(name) && (receiver == 1 || receiver == 2)) {
            return waiting_reply(api, calibration_job(step, receiver.get<int>()));
        }
    }
    return error_reply(422,
                       "\"receiver\" has to be 1 or 2, and \"step\" begin_ends, finish_ends or "
                       "take_centres");
}

// Sends the command of a row that has no values to read back.
static HttpReply send_row(const Api &api, std::string_view param, std::string_view sub,
                          const std::vector<std::string> &values) {
    for (const SettingRow &row : setting_rows()) {
        if (param == row.param && sub == (row.sub == nullptr ? "" : row.sub)) {
            api.send(update_command(row, values));
            return done_reply();
        }
    }
    return error_reply(500, "there is no such command");
}

static HttpReply take_photo(const Api &api) {
    if (!api.view.status || !api.view.status->data_source) {
        return error_reply(409, "no camera's program runs that could take a photo");
    }
    api.send(shot_payload());
    return done_reply();
}

static HttpReply switch_recording(const Api &api, const Json &body) {
    const Json on = body.value("on", Json());
    return on.is_boolean() ? send_row(api, "rec", "", {on.get<bool>() ? "1" : "0"})
                           : error_reply(422, "\"on\" has to be true or false");
}

static std::optional<Sticks> sticks_of(const Json &values) {
    Sticks sticks{};
    if (!values.is_array() || values.size() != sticks.size()) {
        return std::nullopt;
    }
    for (size_t i = 0; i < sticks.size(); ++i) {
        if (!values[i].is_number()) {
            return std::nullopt;
        }
        sticks[i] = values[i].get<double>();
        if (!(sticks[i] >= -1 && sticks[i] <= 1)) {
            return std::nullopt;
        }
    }
    return sticks;
}

static HttpReply turn_gimbal(const Api &api, const Json &body, TimePoint now) {
    const auto sticks = sticks_of(
        {body.value("pan", Json(0)), body.value("tilt", Json(0)), body.value("roll", Json(0))});
    if (!sticks) {
        return error_reply(422, "\"pan\", \"tilt\" and \"roll\" have to be numbers from -1 to 1");
    }
    if (const auto payload = take_sticks(api.gimbal, &api.view, *sticks, now)) {
        api.send(*payload);
    }
    return done_reply();
}

static HttpReply switch_display(const Api &api, const Json &body) {
    std::string reason;
    const std::string command = display_mode_command(body, reason);
    if (command.empty()) {
        return error_reply(422, reason);
    }
    api.send(command);
    return done_reply();
}

static HttpReply play_movement(const Api &api, const Json &body) {
    const Json wanted = body.value("do", Json());
    if (wanted == "play" || wanted == "stop") {
        return send_row(api, "automovement", "setstate", {wanted == "play" ? "1" : "0"});
    }
    if (wanted == "next" || wanted == "previous") {
        return send_row(api, "automovement", wanted == "next" ? "movenext" : "moveprev", {});
    }
    const Json step = body.value("step", Json());
    if (wanted == "move" && step.is_number_integer() && step >= 0 && step < 20) {
        return send_row(api, "automovement", "move", {value_text(step)});
    }
    return error_reply(422, "\"do\" has to be play, stop, next, previous, or move with a \"step\"");
}

std::optional<Sticks> parse_sticks(std::string_view message) {
    const Json parsed = Json::parse(message, nullptr, false);
    return parsed.is_object() && parsed.contains("gimbal") ? sticks_of(parsed["gimbal"])
                                                           : std::nullopt;
}

static bool is_section(const std::string &name) {
    for (const char *section : section_names()) {
        if (name == section) {
            return true;
        }
    }
    return false;
}

static HttpReply list_sections() {
    Json names = Json::array();
    for (const char *section : section_names()) {
        names.push_back(section);
    }
    return json_reply(200, json_text({{"sections", names}}));
}

constexpr std::string_view settings_path = "/api/v1/settings/";

static HttpReply answer_get(const Api &api, const std::string &path, TimePoint now) {
    if (path == "/api/v1/status") {
        return json_reply(200, board_text(api.view, now));
    }
    if (path == "/api/v1/settings") {
        return list_sections();
    }
    if (path == "/api/v1/rc") {
        return read_receivers(api);
    }
    const bool is_setting = path.starts_with(settings_path);
    const std::string section = is_setting ? path.substr(settings_path.size()) : "";
    return is_section(section) ? read_section(api, section)
                               : error_reply(404, status_words_of(404));
}

static HttpReply answer_put(const Api &api, const std::string &path, const Json &body,
                            TimePoint now) {
    if (path == "/api/v1/recording") {
        return switch_recording(api, body);
    }
    if (path == "/api/v1/gimbal") {
        return turn_gimbal(api, body, now);
    }
    const bool is_setting = path.starts_with(settings_path);
    const std::string section = is_setting ? path.substr(settings_path.size()) : "";
    return is_section(section) ? change_section(api, section, body)
                               : error_reply(404, status_words_of(404));
}

static HttpReply answer_post(const Api &api, const std::string &path, const Json &body) {
    if (path == "/api/v1/photo") {
        return take_photo(api);
    }
    if (path == "/api/v1/movement") {
        return play_movement(api, body);
    }
    if (path == "/api/v1/display-mode") {
        return switch_display(api, body);
    }
    if (path == "/api/v1/wifi-scan") {
        return scan_networks(api, body);
    }
    if (path == "/api/v1/rc/calibration") {
        return calibrate(api, body);
    }
    if (path == "/api/v1/restart" || path == "/api/v1/reboot") {
        api.send(command_text({{"cmd", path.substr(path.rfind('/') + 1)}}));
        return done_reply();
    }
    return error_reply(404, status_words_of(404));
}

HttpReply answer_api(const Api &api, const RequestHead &head, const std::string &body,
                     TimePoint now) {
    if (head.method == "GET" || head.method == "HEAD") {
        return answer_get(api, head.path, now);
    }
    const Json parsed = Json::parse(body, nullptr, false);
    if (!parsed.is_object()) {
        return error_reply(400, "the content has to be a JSON object");
    }
    return head.method == "PUT" ? answer_put(api, head.path, parsed, now)
                                : answer_post(api, head.path, parsed);
}
