#pragma once

// The rules of pacing: how closely datagrams may follow each other, how long a send may wait.
// Stands on: base/pause.

#include <algorithm>
#include <cstddef>
#include <cstdint>

// These are functions of state and time. Times are nanoseconds of the monotonic clock; a state of
// all zeros is a new one; the owner of a state serialises its use.

// A round is one packet to all its receivers. The next round begins no sooner than this time per
// datagram after the start of the round: no receiver gets two datagrams faster than that.
constexpr int64_t round_datagram_ns = 2000;

constexpr int64_t round_length_ns(int datagrams) {
    return datagrams * round_datagram_ns;
}

// The token bucket of video: 32 blocks at once, then one per 30 us on average. The default receive
// buffer of Linux holds 92 blocks of 1300 bytes, and a phone needs 20 to 30 us for each.
//
// The clock is virtual: each block moves `paid_until_ns` forward by its price, starting from now at
// the earliest. The time from now to `paid_until_ns` is owed. A sender that wakes up late owes less
// and can send more.
struct VideoBucket {
    int64_t paid_until_ns;
};

constexpr int64_t video_block_price_ns = 30000;
constexpr size_t video_block_unit = 1300; // larger blocks count as several
constexpr int video_blocks_free = 32;     // may be owed without a wait
constexpr int video_blocks_most = 40;     // maximum in a row; then wait until 32 are owed

constexpr int64_t video_debt_free_ns = video_blocks_free * video_block_price_ns;
constexpr int64_t video_debt_most_ns = video_blocks_most * video_block_price_ns;

// When to send the next block; 0: at once.
constexpr int64_t video_sleep_until(const VideoBucket &bucket, int64_t now_ns) {
    const bool owes_too_much = bucket.paid_until_ns - now_ns >= video_debt_most_ns;
    return owes_too_much ? bucket.paid_until_ns - video_debt_free_ns : 0;
}

// Charges for a block of `length` bytes that is sent now.
constexpr void video_block_leaves(VideoBucket &bucket, int64_t now_ns, size_t length) {
    const size_t units = std::max<size_t>((length + video_block_unit - 1) / video_block_unit, 1);
    bucket.paid_until_ns =
        std::max(bucket.paid_until_ns, now_ns) + static_cast<int64_t>(units) * video_block_price_ns;
}

// Reduces what is owed to the free amount. For when frames pile up behind the one being sent.
constexpr void video_debt_forgiven(VideoBucket &bucket, int64_t now_ns) {
    bucket.paid_until_ns = std::min(bucket.paid_until_ns, now_ns + video_debt_free_ns);
}

// Are more frames waiting than pacing may cause? Then the debt is forgiven.
using MustHurry = bool (*)();

// Sleeps until the bucket lets a block of `length` bytes pass, unless there is a hurry, charges for
// the block, and returns the time.
int64_t pace_video(VideoBucket &bucket, size_t length, MustHurry must_hurry);

// How long senders may wait for space in one socket's buffer: 20 ms at once, then 5 % of the time.
// So they wait for a burst that the network card has not sent yet, but not for a link that is too
// slow for its traffic.
struct Patience {
    int64_t used_until_ns; // on a virtual clock, as above: a wait of 1 ns moves it forward by 20
};

constexpr int64_t patience_burst_ns = 20'000'000;
constexpr int64_t patience_share = 20; // 1/20 of the time

// How long a sender may wait now.
constexpr int64_t patience_left_ns(const Patience &patience, int64_t now_ns) {
    const int64_t used = std::max<int64_t>(patience.used_until_ns - now_ns, 0) / patience_share;
    return std::max<int64_t>(patience_burst_ns - used, 0);
}

// Charges for a wait that began at `start_ns` and took `waited_ns`.
constexpr void use_patience(Patience &patience, int64_t start_ns, int64_t waited_ns) {
    patience.used_until_ns =
        std::max(patience.used_until_ns, start_ns) + waited_ns * patience_share;
}
