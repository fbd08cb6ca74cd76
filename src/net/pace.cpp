#include "net/pace.h"

#include "base/pause.h"

int64_t pace_video(VideoBucket &bucket, size_t length, MustHurry must_hurry) {
    int64_t now = monotonic_ns();
    const int64_t moment = video_sleep_until(bucket, now);
    if (moment != 0 && must_hurry()) {
        video_debt_forgiven(bucket, now);
    } else if (moment != 0) {
        sleep_until_ns(moment);
        now = monotonic_ns();
    }
    video_block_leaves(bucket, now, length);
    return now;
}
