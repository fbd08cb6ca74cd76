#include "beacon_media/live.h"

#include "source/clocks.h"

// While it is switched off.
constexpr int idle_ms = 200;

bool has_sound(const LiveFeed &feed, int64_t now) {
    return feed.sound_heard != 0 && now - feed.sound_heard < nanoseconds_per_second;
}

static void take_pictures(LiveFeed &feed, const LiveActions &actions, void *helper) {
    Piece picture;
    while (next_picture(feed.splitter, picture)) {
        actions.take_picture(helper, picture, monotonic_ns());
    }
}

static void take_news(LiveFeed &feed, const LiveActions &actions, void *helper) {
    std::span<const uint8_t> data;
    const StreamNews news = next_news(feed.stream, after(0.1), feed.role.signals, data);
    const int64_t now = monotonic_ns();
    if (news == StreamNews::video) {
        push_stream(feed.splitter, data, now);
    } else if (news == StreamNews::sound) {
        feed.sound_heard = now;
        actions.take_sound(helper, data, now);
    }
    take_pictures(feed, actions, helper);
}

static void stop(LiveFeed &feed, const LiveActions &actions, void *helper) {
    if (!feed.is_started) {
        return;
    }
    feed.is_started = false;
    leave_stream(feed.stream);
    end_stream(feed.splitter);
    take_pictures(feed, actions, helper);
    stop_splitter(feed.splitter);
    actions.stop(helper);
    feed.stream.status.reset();
    forget_complaint(feed.role);
}

int run_live(LiveFeed &feed, const LiveActions &actions, void *helper) {
    Beat look{nanoseconds_per_second / 4};
    bool is_on = false;
    do {
        const int64_t now = monotonic_ns();
        const bool is_due = beat_is_due(look, now);
        if (is_due || !is_on || feed.role.has_reread) {
            is_on = actions.is_on(helper);
        }
        if (!is_on) {
            stop(feed, actions, helper);
        } else if (init_engine()) {
            feed.is_started = true;
            if (is_due) {
                actions.look_after(helper, now);
            }
            if (feed.stream.is_joined || join_stream(feed.stream)) {
                take_news(feed, actions, helper);
            }
        }
    } while (role_goes_on(feed.role, feed.stream.is_joined ? 0 : idle_ms));
    stop(feed, actions, helper);
    return 0;
}
