#include "beacon_media/source_run.h"

#include "beacon_media/address.h"
#include "beacon_media/child.h"
#include "beacon_media/engine.h"
#include "beacon_media/exchange.h"
#include "beacon_media/feed.h"
#include "beacon_media/pace.h"
#include "beacon_media/photo.h"
#include "source/clocks.h"
#include "source/complain.h"
#include "source/shared_object.h"
#include "source/signals.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <unistd.h>

// Everything but pictures is looked after this often.
constexpr int64_t turn = 10 * nanoseconds_per_millisecond;
constexpr int wait_for_ring_ms = 100;
constexpr int64_t shortest_pause = nanoseconds_per_second;
constexpr int64_t longest_pause = 8 * nanoseconds_per_second;
// A camera on the network that has gone quiet is asked again after this time.
constexpr int64_t patience = 10 * nanoseconds_per_second;
// A photo that is being written may delay the end by so much.
constexpr int64_t photo_patience = 2 * nanoseconds_per_second;

// A pipeline that is started again when it is over.
struct Stream {
    PipelineWords words;
    Pipeline *pipeline = nullptr;
    int64_t due = 0; // when to start it
    int64_t started = 0;
    int64_t pause = shortest_pause;
    std::string said; // the last complaint: not repeated until something came
};

struct Run {
    Options options;
    Feed feed;
    Exchange exchange;
    Stream video;
    Stream sound;
    Child camera;
    Pace pace;
    Piece held; // a file's picture that is not due yet
    bool is_held = false;
    int64_t held_due = 0;
    uint64_t seen_before = 0; // pictures when the video stream was started
    int signals = -1;
    Beat stats_beat{nanoseconds_per_second};
    int64_t stats_since = 0;
    bool has_refused = false; // a photo, since the last one was begun
    bool is_over = false;
    int status = 0;
};

static void finish(Run &run, int status) {
    run.is_over = true;
    run.status = status;
}

// A complaint that is not made twice in a row.
static void complain_once(Stream &stream, const std::string &line) {
    if (stream.said != line) {
        complain("%s", line.c_str());
        stream.said = line;
    }
}

static void start_again_later(Stream &stream, int64_t now) {
    stream.due = now + stream.pause;
    stream.pause = std::min(2 * stream.pause, longest_pause);
}

static void stop_stream(Stream &stream) {
    stop_pipeline(stream.pipeline);
    stream.pipeline = nullptr;
}

static int input_fd(const Run &run) {
    switch (run.options.source.kind) {
    case SourceKind::input:
        return STDIN_FILENO;
    case SourceKind::command:
        return run.camera.fd;
    default:
        return -1;
    }
}

static void start_video(Run &run, int64_t now) {
    if (run.options.source.kind == SourceKind::command &&
        !start_child(run.camera, run.options.source.text, false)) {
        start_again_later(run.video, now);
        return;
    }
    // Another camera may be there now, or one at last.
    const EngineParts parts = find_engine_parts(run.options.source);
    run.video.words = video_pipeline(run.options.source, run.options.encoder, parts);
    std::string reason;
    run.video.pipeline = start_pipeline(run.video.words, "pictures", input_fd(run), reason);
    run.video.started = now;
    run.seen_before = run.feed.seen;
    begin_again(run.pace);
    if (run.video.pipeline == nullptr) {
        complain("GStreamer cannot do this: %s", reason.c_str());
        finish(run, 1);
    }
}

// What was shown of the source since it was started.
static bool has_shown(const Run &run) {
    return run.feed.seen > run.seen_before;
}

// The password of a camera on the network is left out.
static std::string shown_source(const Options &options) {
    return options.source.kind == SourceKind::rtsp ? shown_address(options.source_text)
                                                   : options.source_text;
}

static void play_again_or_finish(Run &run, bool is_failed, const std::string &reason) {
    const bool has_any = has_shown(run);
    if (is_failed || !has_any) {
        complain("%s: %s%s%s", shown_source(run.options).c_str(), reason.c_str(),
                 is_failed && !has_any ? ", " : "", has_any ? "" : "no H.264 picture in it");
    }
    if (run.options.source.kind != SourceKind::file || !run.options.is_loop || !has_any) {
        finish(run, is_failed || run.feed.seen == 0 ? 1 : 0);
    }
}

// Files and standard input end; everything else is started again.
static void handle_end_of_video(Run &run, bool is_failed, std::string reason, int64_t now) {
    stop_stream(run.video);
    const SourceKind kind = run.options.source.kind;
    if (kind == SourceKind::file || kind == SourceKind::input || kind == SourceKind::test) {
        play_again_or_finish(run, is_failed, reason);
        return;
    }
    if (kind == SourceKind::command) {
        const std::string status = end_child(run.camera);
        reason = is_failed ? reason + " (the command " + status + ")" : "the command " + status;
    } else if (!is_failed) {
        reason = "the stream ended";
    }
    if (has_shown(run)) {
        run.video.pause = shortest_pause;
        run.video.said.clear();
    } else if (!is_failed) {
        reason += " without an H.264 picture";
    }
    complain_once(run.video, shown_source(run.options) + ": " + reason + ", trying again");
    start_again_later(run.video, now);
}

static void check_video(Run &run, int64_t now) {
    if (run.video.pipeline == nullptr) {
        if (now >= run.video.due) {
            start_video(run, now);
        }
        return;
    }
    std::string reason;
    const PipelineState state = check_pipeline(*run.video.pipeline, reason);
    if (state != PipelineState::running) {
        handle_end_of_video(run, state == PipelineState::failed, reason, now);
        return;
    }
    const SourceKind kind = run.options.source.kind;
    const bool can_hang = kind == SourceKind::rtsp || kind == SourceKind::device;
    if (can_hang && now - std::max(run.feed.last_seen, run.video.started) > patience) {
        handle_end_of_video(run, true, "nothing came for 10 s", now);
    }
}

static void show(Run &run, const Piece &picture, int64_t now) {
    feed_picture(run.feed, picture, now);
    run.is_held = false;
}

static void hold_or_show(Run &run, const Piece &picture, int64_t now) {
    if (run.options.source.kind != SourceKind::file) {
        show(run, picture, now);
        return;
    }
    run.held = picture;
    run.held.age = no_time;
    run.held_due = due_time(run.pace, now, picture.stamp, picture.duration);
    run.is_held = true;
}

// Waits for the next picture, but not beyond the turn.
static void wait_for_picture(Run &run, int64_t now) {
    if (run.is_held || run.video.pipeline == nullptr) {
        const int64_t until = run.is_held ? run.held_due - now : turn;
        const int64_t wait = std::clamp<int64_t>(until, 0, turn);
        usleep(static_cast<useconds_t>(wait / 1000));
    }
    Piece picture;
    const int64_t later = monotonic_ns();
    if (run.is_held && later >= run.held_due) {
        show(run, run.held, later);
    } else if (!run.is_held && run.video.pipeline != nullptr &&
               next_piece(*run.video.pipeline, turn, picture)) {
        hold_or_show(run, picture, monotonic_ns());
    }
}

static void run_sound(Run &run, int64_t now) {
    Stream &sound = run.sound;
    if (sound.words.description.empty()) {
        return;
    }
    std::string reason;
    if (sound.pipeline == nullptr) {
        if (now < sound.due) {
            return;
        }
        sound.pipeline = start_pipeline(sound.words, "sound", -1, reason);
        if (sound.pipeline == nullptr) {
            complain("no sound, GStreamer cannot do this: %s", reason.c_str());
            sound.words.description.clear();
            return;
        }
    }
    Piece piece;
    while (next_piece(*sound.pipeline, 0, piece)) {
        send_sound(run.exchange, piece.data, piece.size);
        sound.pause = shortest_pause;
        sound.said.clear();
    }
    if (check_pipeline(*sound.pipeline, reason) != PipelineState::running) {
        stop_stream(sound);
        complain_once(sound,
                      "no sound: " + (reason.empty() ? "it ended" : reason) + ", trying again");
        start_again_later(sound, now);
    }
}

static void refuse_shot(Run &run, const char *reason, int64_t now) {
    if (!run.has_refused) {
        complain("no photo: %s", reason);
        run.has_refused = true;
    }
    answer_shot(run.exchange, "", now);
}

static void answer_photo(Run &run, int64_t now) {
    const auto photo = finished_photo();
    if (!photo) {
        return;
    }
    if (photo->path.empty()) {
        complain("no photo: %s", photo->reason.c_str());
    }
    answer_shot(run.exchange, photo->path, now);
}

// The last key frame, as a JPEG where recordings go.
static void take_shot(Run &run, int64_t now) {
    answer_photo(run, now);
    if (!run.exchange.is_shot_wanted) {
        return;
    }
    run.exchange.is_shot_wanted = false;
    if (run.feed.key_frame.empty()) {
        refuse_shot(run, "there is no picture yet", now);
    } else if (begin_photo(run.feed.key_frame)) {
        run.has_refused = false;
    } else {
        refuse_shot(run, "the last one is still being written", now);
    }
}

// False: it is still under way.
static bool finish_photo(Run &run) {
    const int64_t end = monotonic_ns() + photo_patience;
    while (photo_is_under_way() && monotonic_ns() < end) {
        usleep(static_cast<useconds_t>(turn / 1000));
    }
    answer_photo(run, monotonic_ns());
    return !photo_is_under_way();
}

static void run_loop(Run &run) {
    while (!run.is_over) {
        const int64_t now = monotonic_ns();
        const SignalKind signal = take_signal(run.signals);
        if (signal == SignalKind::stop) {
            return;
        }
        if (signal == SignalKind::suspend) {
            suspend_process();
        }
        if (!run.is_held) {
            check_video(run, now);
        }
        run_sound(run, now);
        const PictureGate &gate = run.feed.gate;
        const bool has_video = now - run.feed.last_seen < nanoseconds_per_second;
        run_exchange(run.exchange, now, has_video, {gate.passed, dropped_pictures(gate)});
        take_shot(run, now);
        watch_silence(run.feed, now);
        if (run.options.has_stats && beat_is_due(run.stats_beat, now)) {
            print_stats(run.feed, static_cast<double>(now - run.stats_since) / 1e9);
            run.stats_since = now;
        }
        wait_for_picture(run, now);
    }
}

// False: stopped meanwhile.
static bool wait_for_ring(Run &run) {
    bool has_waited = false;
    while (!ring_is_there(run.feed.ring)) {
        if (!has_waited) {
            complain("waiting for the daemon: there is no frame ring");
            has_waited = true;
        }
        if (wait_for_stop(run.signals, wait_for_ring_ms)) {
            return false;
        }
    }
    if (has_waited) {
        complain("the daemon is running");
    }
    return true;
}

static void print_summary(const Feed &feed) {
    printf("Published %" PRIu64 " frames, %" PRIu64 " bytes; dropped %" PRIu64 ".\n",
           feed.gate.passed, feed.gate.bytes, dropped_pictures(feed.gate));
}

static bool prepare(Run &run) {
    run.signals = open_signals();
    run.exchange.has_telemetry = run.options.telemetry != "none";
    run.exchange.telemetry_command = run.exchange.has_telemetry ? run.options.telemetry : "";
    if (run.signals < 0 || !init_engine() || !check_shared_memory() ||
        !open_exchange(run.exchange)) {
        return false;
    }
    run.sound.words = run.options.audio;
    return true;
}

int run_source(const Options &options) {
    Run run;
    run.options = options;
    if (!prepare(run)) {
        return 1;
    }
    if (wait_for_ring(run)) {
        const int64_t begin = monotonic_ns();
        run.feed.last_seen = begin;
        run.stats_since = begin;
        run.stats_beat.due = begin + nanoseconds_per_second;
        run_loop(run);
    }
    stop_stream(run.video);
    stop_stream(run.sound);
    end_child(run.camera);
    const bool is_photo_stuck = !finish_photo(run);
    close_exchange(run.exchange);
    print_summary(run.feed);
    if (is_photo_stuck) {
        fflush(stdout);
        _exit(run.status); // nothing is taken down that its thread uses
    }
    return run.status;
}
