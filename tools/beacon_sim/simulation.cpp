#include "beacon_sim/simulation.h"

#include "beacon_sim/prepare.h"
#include "beacon_sim/terminal.h"
#include "source/complain.h"
#include "source/signals.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <poll.h>
#include <unistd.h>

// How long the daemon may take no frame, and how long the encoder may take to end.
constexpr int64_t patience = 5 * nanoseconds_per_second;
// After this time there is a message.
constexpr int64_t silence = 2 * nanoseconds_per_second;
constexpr int64_t ring_poll_interval = nanoseconds_per_millisecond;

static void stop(Simulation &simulation) {
    if (simulation.stop_since == 0) {
        simulation.stop_since = monotonic_ns();
        stop_encoder(simulation.encoder);
    }
}

// What to wait for: indices of the descriptors for poll(), which skips -1.
enum WaitedFor : unsigned { on_signal, on_command, on_video, on_sound, on_key, waited_count };

static void handle_signal(Simulation &simulation) {
    const SignalKind kind = take_signal(simulation.signals);
    if (kind == SignalKind::suspend) {
        leave_key_mode();
        suspend_process();
        if (simulation.is_keyboard_open) {
            enter_key_mode();
        }
    } else if (kind == SignalKind::stop && simulation.stop_since != 0) {
        complain("stopped before the daemon had taken every frame");
        simulation.is_failed = true;
        simulation.is_aborted = true;
    } else if (kind == SignalKind::stop) {
        stop(simulation);
    }
}

static void read_keys(Simulation &simulation) {
    char bytes[64];
    const ssize_t length = read(STDIN_FILENO, bytes, sizeof bytes);
    simulation.is_keyboard_open = length > 0;
    bool is_moved = false;
    for (ssize_t i = 0; i < length; ++i) {
        is_moved = press_key(simulation.motion.keys, bytes[i]) || is_moved;
    }
    if (is_moved) {
        printf("%9.3f  sticks   %s\n", static_cast<double>(monotonic_ns() - simulation.begin) / 1e9,
               describe_sticks(simulation.motion.keys).c_str());
    }
}

// Has the encoder produced anything since the last call?
static bool has_played(Simulation &simulation) {
    const uint64_t before = simulation.played;
    simulation.played = simulation.feed.frames + simulation.feed.too_long +
                        simulation.feed.waiting.size() +
                        (simulation.order.has_audio ? simulation.streams.audio.sent : 0);
    return simulation.played != before;
}

// Starts the encoder again with its file: not every file can be rewound while it plays.
static bool play_again(Simulation &simulation) {
    const EncoderOrder &order = simulation.order;
    if (order.file.empty() || order.is_once || !has_played(simulation) ||
        !start_encoder(simulation.encoder, order)) {
        return false;
    }
    simulation.feed.is_ended = false;
    return true;
}

// When both its streams have ended, so has the encoder.
static void finish_streams(Simulation &simulation) {
    Encoder &encoder = simulation.encoder;
    if (encoder.pid < 0 || encoder.video_fd >= 0 || encoder.audio_fd >= 0) {
        return;
    }
    const bool is_well = finish_encoder(encoder, false);
    if (simulation.stop_since == 0 && is_well && play_again(simulation)) {
        return;
    }
    if (simulation.stop_since == 0 && !(simulation.order.is_once && is_well)) {
        complain("the encoder ended by itself");
        simulation.is_failed = true;
    }
    stop(simulation);
}

static void close_stream(int &fd) {
    close(fd);
    fd = -1;
}

// Waits for something to do, at most until `until`, and handles what came from outside.
static void wait_and_handle(Simulation &simulation, int64_t until) {
    Encoder &encoder = simulation.encoder;
    VideoFeed &feed = simulation.feed;
    pollfd waited[waited_count];
    waited[on_signal] = {simulation.signals, POLLIN, 0};
    waited[on_command] = {simulation.streams.data.fd, POLLIN, 0};
    // While the ring is full, the encoder has to wait.
    waited[on_video] = {feed.waiting.empty() ? encoder.video_fd : -1, POLLIN, 0};
    waited[on_sound] = {encoder.audio_fd, POLLIN, 0};
    waited[on_key] = {simulation.is_keyboard_open ? STDIN_FILENO : -1, POLLIN, 0};
    const int64_t time = std::max<int64_t>(until - monotonic_ns(), 0);
    const timespec timeout{static_cast<time_t>(time / nanoseconds_per_second),
                           static_cast<long>(time % nanoseconds_per_second)};
    if (ppoll(waited, waited_count, &timeout, nullptr) <= 0) {
        return;
    }
    if (waited[on_video].revents != 0) {
        read_encoder(feed, encoder.video_fd);
        if (feed.is_ended) {
            close_stream(encoder.video_fd);
        }
    }
    if (waited[on_sound].revents != 0 && !read_sound(simulation.streams, encoder.audio_fd)) {
        close_stream(encoder.audio_fd);
    }
    if (waited[on_command].revents != 0) {
        take_commands(simulation.streams, simulation.motion.gimbal, simulation.begin);
    }
    if (waited[on_key].revents != 0) {
        read_keys(simulation);
    }
    if (waited[on_signal].revents != 0) {
        handle_signal(simulation);
    }
}

// Reports when the daemon is gone or takes no frames, and when it is back. The camera waits for it.
static void watch_daemon(Simulation &simulation, int64_t now) {
    const bool is_refused = daemon_is_gone(simulation.streams);
    const VideoFeed &feed = simulation.feed;
    const bool is_ignored =
        simulation.order.has_video && !feed.has_no_memory && now - feed.progress > silence;
    if (is_refused != simulation.was_refused) {
        complain(is_refused ? "the daemon is gone, waiting for it" : "the daemon is back");
    } else if (is_ignored && !simulation.was_ignored && !is_refused) {
        complain("the daemon takes no frames from this ring, waiting for it");
    }
    simulation.was_refused = is_refused;
    simulation.was_ignored = is_ignored;
}

static bool is_over(const Simulation &simulation) {
    return simulation.is_aborted ||
           (simulation.stop_since != 0 && simulation.encoder.pid < 0 &&
            (!simulation.order.has_video || feed_is_drained(simulation.feed)));
}

// At the end: the daemon may not take the last frames, and the encoder may not stop.
static bool has_lost_patience(Simulation &simulation, int64_t now) {
    if (simulation.stop_since == 0) {
        return false;
    }
    // A daemon that is gone takes no more frames.
    const int64_t most = daemon_is_gone(simulation.streams) ? nanoseconds_per_second : patience;
    const int64_t progress = std::max(simulation.feed.progress, simulation.stop_since);
    if (simulation.order.has_video && now - progress > most) {
        complain("the daemon no longer takes frames");
        simulation.is_failed = true;
        return true;
    }
    return simulation.encoder.pid > 0 && now - simulation.stop_since > 2 * patience;
}

static void run_loop(Simulation &simulation) {
    VideoFeed &feed = simulation.feed;
    while (!is_over(simulation)) {
        const int64_t now = monotonic_ns();
        if (simulation.order.has_video) {
            publish_waiting(feed, now);
        }
        run_motion(simulation.motion, now, simulation.begin);
        run_streams(simulation.streams, now, feed.frames);
        watch_daemon(simulation, now);
        finish_streams(simulation);
        if (has_lost_patience(simulation, now)) {
            return;
        }
        const bool is_ring_watched = !feed.waiting.empty() || feed.is_ended;
        // Everything else that is due happens with a turn of the gimbal.
        const int64_t turn = simulation.motion.beat.due;
        wait_and_handle(simulation,
                        is_ring_watched ? std::min(turn, now + ring_poll_interval) : turn);
    }
}

static void print_summary(const Simulation &simulation) {
    const SourceStreams &streams = simulation.streams;
    const double *angles = simulation.motion.gimbal.angles;
    printf("Ran for %.1f seconds.\n", static_cast<double>(monotonic_ns() - simulation.begin) / 1e9);
    if (simulation.order.has_video) {
        printf("  video      %" PRIu64 " frames, %" PRIu64 " bytes\n", simulation.feed.frames,
               simulation.feed.bytes);
    }
    if (simulation.feed.too_long != 0) {
        printf("  left out   %" PRIu64 " frames, too long for the ring\n",
               simulation.feed.too_long);
    }
    if (streams.has_telemetry) {
        printf("  telemetry  %" PRIu64 " datagrams; %" PRIu64 " commands came back\n",
               streams.data.sent, streams.commands);
    }
    if (streams.has_audio) {
        printf("  audio      %" PRIu64 " datagrams\n", streams.audio.sent);
    }
    printf("  gimbal     pan %+.1f tilt %+.1f roll %+.1f degrees\n", angles[0], angles[1],
           angles[2]);
}

static void finish(Simulation &simulation) {
    leave_key_mode();
    finish_encoder(simulation.encoder, true);
    print_summary(simulation);
    if (simulation.has_record &&
        !close_record(simulation.record,
                      {simulation.streams.data.sent, simulation.streams.audio.sent,
                       simulation.streams.commands, simulation.motion.turned})) {
        simulation.is_failed = true;
    }
}

int run_simulation(const Options &options) {
    Simulation simulation;
    if (!prepare_simulation(simulation, options) || !wait_for_daemon(simulation, options)) {
        return 1;
    }
    simulation.feed.record = simulation.has_record ? &simulation.record : nullptr;
    if ((simulation.order.has_video || simulation.order.has_audio) &&
        !start_encoder(simulation.encoder, simulation.order)) {
        return 1;
    }
    simulation.begin = monotonic_ns();
    simulation.feed.progress = simulation.begin;
    if (options.keys) {
        simulation.is_keyboard_open = enter_key_mode();
    }
    run_loop(simulation);
    finish(simulation);
    return simulation.is_failed ? 1 : 0;
}
