#include "beacon_web/console.h"

#include "beacon_web/api.h"
#include "beacon_web/block_joiner.h"
#include "beacon_web/metrics.h"
#include "beacon_web/recordings_api.h"
#include "beacon_web/sound.h"
#include "beacon_web/video_track.h"
#include "client/mount_list.h"
#include "client/packet.h"
#include "client/sequence_count.h"

#include <fstream>
#include <optional>
#include <utility>

static bool is_before_last_video(const Console &console, const PacketView &packet) {
    return static_cast<int32_t>(packet.sequence - console.video_sequence) <= 0;
}

// May video have been lost before this packet of it?
static bool is_after_loss(Console &console, const PacketView &packet) {
    const bool is_counted_anew = is_before_last_video(console, packet);
    const uint32_t last = std::exchange(console.video_sequence, packet.sequence);
    const uint32_t dropped = std::exchange(console.video_dropped, console.link.link.dropped);
    if (is_counted_anew || !is_missing_between(console.view.sequence, last, packet.sequence)) {
        return is_counted_anew;
    }
    // On one machine nothing else gets lost: the missing numbers are those of packets to another
    // client. The pictures' own numbers are still compared.
    const bool is_others = console.view.is_here && dropped == console.link.link.dropped;
    console.joiner.has_gap = console.joiner.has_gap || is_others;
    return !is_others;
}

static bool take_video(Console &console, const PacketView &packet, TimePoint now) {
    bool has_new = false;
    const bool is_after_gap = is_after_loss(console, packet);
    for (const CodedPicture &picture : join_block(console.joiner, packet.payload, is_after_gap)) {
        if (auto fragment = take_picture(console.track, picture, now)) {
            add_picture(console.ring, std::move(*fragment));
            ++console.view.pictures;
            console.view.picture_at = now;
            has_new = true;
        }
    }
    return has_new;
}

PacketNews take_board_packet(Console &console, const PacketView &packet, TimePoint now) {
    const Arrival arrival = console.view.arrival;
    const bool is_media =
        packet_kind(packet) == PacketKind::video || packet_kind(packet) == PacketKind::audio;
    if (is_media && arrival == Arrival::repeated) {
        return {};
    }
    if (packet_kind(packet) == PacketKind::video) {
        if (arrival == Arrival::late && is_before_last_video(console, packet)) {
            return {}; // the video has gone on without it
        }
        return {take_video(console, packet, now), nullptr, std::nullopt};
    }
    if (packet_kind(packet) == PacketKind::audio && console.view.has_known_sound) {
        return {false, std::make_shared<std::string>(sound_message(packet.payload)), std::nullopt};
    }
    return {false, nullptr, show_packet(console.jobs, packet, now)};
}

static void send(Console &console, const std::string &payload) {
    if (console.link.link.socket >= 0) {
        send_payload(console.link.link, payload);
    }
}

static std::string read_mount_info() {
    std::ifstream file(own_mount_info_path);
    std::string text;
    std::getline(file, text, '\0'); // all of it; unlike an iterator, it throws nothing
    return text;
}

constexpr double client_list_seconds = 1.0; // the daemon writes one each second

std::vector<FinishedJob> step_console(Console &console, TimePoint now) {
    step_board_link(console.link, console.view, now);
    if (const auto payload = step_gimbal(console.gimbal, now)) {
        send(console, *payload);
    }
    if (console.view.is_refused) {
        give_up(console.jobs, now);
    }
    if (now >= console.next_client_list) {
        note_clients(console.view, console.view.is_here ? read_client_list() : std::nullopt);
        console.view.mount_info = console.view.is_here ? read_mount_info() : "";
        console.next_client_list = now + from_seconds(client_list_seconds);
    }
    step_disk_waits(console.disks, console.late_replies, now);
    JobWork work = step_jobs(console.jobs, now);
    for (const std::string &payload : work.payloads) {
        send(console, payload);
    }
    return std::move(work.finished);
}

static HttpReply metrics_reply(const Console &console, TimePoint now) {
    HttpReply reply;
    reply.status = 200;
    reply.type = "text/plain; version=0.0.4; charset=utf-8";
    reply.body = metrics_text(console.view, console.viewers, console.track.dropped, now);
    return reply;
}

constexpr double jpeg_patience = 8.0; // seconds until a picture has to be there

static HttpReply answer_jpeg(Console &console, bool is_stream, TimePoint now) {
    std::string problem = picture_problem(console.view, now);
    if (problem.empty() && console.jpeg_waits.size() >= most_jpeg_waits) {
        problem = "too many requests wait for a picture";
    }
    if (problem.empty()) {
        problem = want_jpegs(console.jpegs, now);
    }
    if (!problem.empty()) {
        return error_reply(503, problem);
    }
    HttpReply reply;
    reply.job = ++console.jobs.last_id;
    console.jpeg_waits.push_back(
        {reply.job, console.jpegs.number, now + from_seconds(jpeg_patience), is_stream});
    return reply;
}

// A browser that was told the password sends it for pictures in anybody's pages.
static HttpReply jpeg_reply(const JpegMaker &jpegs, bool is_stream, bool has_password) {
    HttpReply reply;
    reply.status = 200;
    reply.embedders = has_password ? "same-site" : "cross-origin";
    reply.is_picture_stream = is_stream;
    reply.type = is_stream ? "multipart/x-mixed-replace; boundary=picture" : "image/jpeg";
    if (!is_stream) {
        reply.body = *jpegs.jpeg;
    }
    return reply;
}

bool make_jpegs(Console &console, TimePoint now) {
    if (console.jpeg_viewers > 0 || !console.jpeg_waits.empty()) {
        want_jpegs(console.jpegs, now);
    }
    const bool is_new = step_jpegs(console.jpegs, console.ring, now);
    std::erase_if(console.jpeg_waits, [&console, now](const JpegWait &wait) {
        const bool has_come = console.jpegs.jpeg && console.jpegs.number > wait.after;
        if (has_come) {
            console.late_replies.push_back({wait.job, jpeg_reply(console.jpegs, wait.is_stream,
                                                                 !console.login.password.empty())});
        } else if (now > wait.until) {
            console.late_replies.push_back({wait.job, error_reply(503, "ffmpeg makes no picture")});
        }
        return has_come || now > wait.until;
    });
    return is_new;
}

HttpReply answer_request(Console &console, const RequestHead &head, const std::string &body,
                         TimePoint now) {
    if (is_about_recordings(head.path)) {
        return answer_recordings(
            {console.view.is_here, console.jobs.last_id, console.late_replies, console.disks}, head,
            body, now);
    }
    if (head.path.starts_with("/api/")) {
        const Api api{console.view, console.gimbal, console.jobs, console.has_camera_options,
                      [&console](const std::string &payload) { send(console, payload); }};
        HttpReply reply = answer_api(api, head, body, now);
        if (head.path == "/api/v1/status") { // a page asks once a day
            renew_cookie(console.login, head, reply, now);
        }
        return reply;
    }
    if (head.method == "POST" && (head.path == "/login" || head.path == "/logout")) {
        return answer_login(console.login, head, body, now);
    }
    if (head.method != "GET" && head.method != "HEAD") {
        return error_reply(404, status_words_of(404));
    }
    if (head.path == "/snapshot.jpg" || head.path == "/stream.mjpeg") {
        return answer_jpeg(console, head.path == "/stream.mjpeg", now);
    }
    if (head.path == "/healthz") {
        return text_reply(200, "ok");
    }
    HttpReply reply = head.path == "/metrics" ? metrics_reply(console, now) : page_reply(head.path);
    if (head.path == "/") {
        renew_cookie(console.login, head, reply, now);
    }
    return reply;
}

void take_page_message(Console &console, const void *viewer, std::string_view message,
                       TimePoint now) {
    const auto sticks = parse_sticks(message);
    if (!sticks) {
        return;
    }
    if (const auto payload = take_sticks(console.gimbal, viewer, *sticks, now)) {
        send(console, *payload);
    }
}

void forget_viewer(Console &console, const void *viewer) {
    let_go(console.gimbal, viewer);
}
