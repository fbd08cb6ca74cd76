#include "beacon_media/feed.h"

#include "source/clocks.h"
#include "source/complain.h"

#include "media/frame_ring_layout.h"

#include <cinttypes>
#include <cstdio>

constexpr int64_t silence = 5 * nanoseconds_per_second;

static void say_too_long(Feed &feed, size_t size, int64_t now) {
    if (feed.too_long_said != 0 && now - feed.too_long_said < nanoseconds_per_second) {
        ++feed.too_long_unsaid;
        return;
    }
    complain("dropped a frame of %zu bytes, a slot of the ring holds %u (%" PRIu64
             " more since the last such line); a lower bit rate may help",
             size, main_frame_capacity, feed.too_long_unsaid);
    feed.too_long_said = now;
    feed.too_long_unsaid = 0;
}

// One line when it changes.
static void say_room(Feed &feed, RingRoom room) {
    if (room == feed.room) {
        return;
    }
    feed.room = room;
    switch (room) {
    case RingRoom::free:
        complain("the daemon takes frames again, %" PRIu64 " were dropped",
                 dropped_pictures(feed.gate) - feed.lost_before);
        return;
    case RingRoom::full:
        complain("the frame ring is full: the daemon takes no frames, dropping them until it does");
        return;
    case RingRoom::no_memory:
        complain("/dev/shm is full, dropping frames until there is room");
        return;
    case RingRoom::absent:
        complain("the daemon's frame ring is gone, dropping frames until it is back");
        return;
    }
}

void feed_picture(Feed &feed, const Piece &picture, int64_t now) {
    ++feed.seen;
    feed.last_seen = now;
    if (picture.is_key) {
        feed.key_frame.assign(picture.data, picture.data + picture.size);
    }
    const RingRoom room =
        picture.size > main_frame_capacity ? RingRoom::full : ring_room(feed.ring, picture.size);
    const Verdict verdict = judge_picture(feed.gate, picture.size, picture.is_key,
                                          main_frame_capacity, room == RingRoom::free);
    if (verdict == Verdict::too_long) {
        say_too_long(feed, picture.size, now);
    } else if (verdict == Verdict::no_room) {
        say_room(feed, room);
    } else if (verdict == Verdict::publish) {
        say_room(feed, room);
        feed.lost_before = dropped_pictures(feed.gate);
        publish_frame(feed.ring.writer, picture.data, static_cast<uint32_t>(picture.size));
        if (picture.age >= 0) {
            feed.age_sum += picture.age;
            ++feed.ages;
        }
    }
}

void watch_silence(Feed &feed, int64_t now) {
    const bool is_silent = now - feed.last_seen > silence;
    if (is_silent && !feed.is_silent) {
        complain("no picture for 5 s");
    } else if (!is_silent && feed.is_silent) {
        complain("there are pictures again");
    }
    feed.is_silent = is_silent;
}

void print_stats(Feed &feed, double seconds) {
    const PictureGate &gate = feed.gate;
    printf("frames %" PRIu64 "  %.1f/s  %.2f Mbit/s  dropped %" PRIu64, gate.passed,
           static_cast<double>(gate.passed - feed.passed_said) / seconds,
           static_cast<double>(gate.bytes - feed.bytes_said) * 8.0 / 1e6 / seconds,
           dropped_pictures(gate));
    if (feed.ages > 0) {
        printf("  latency %.1f ms",
               static_cast<double>(feed.age_sum) / static_cast<double>(feed.ages) / 1e6);
    }
    printf("\n");
    feed.passed_said = gate.passed;
    feed.bytes_said = gate.bytes;
    feed.age_sum = 0;
    feed.ages = 0;
}
