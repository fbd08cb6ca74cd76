#include "beacon_media/rtsp.h"

#include "beacon_media/engine.h"
#include "beacon_media/live.h"
#include "beacon_media/rtsp_server.h"
#include "source/clocks.h"
#include "source/complain.h"

constexpr const char *number_file = "rtsp-server.info";

struct RtspHelper {
    LiveFeed feed;
    RtspServer *server = nullptr; // started with the first use; it cannot be stopped
    int64_t due = 0;              // when to start it, after a failure
    unsigned viewers = 0;
};

// A change of the settings ends this process.
static bool is_on(void *helper) {
    return static_cast<RtspHelper *>(helper)->feed.role.settings.rtsp_server_enabled != 0;
}

static void take_picture(void *helper, const Piece &picture, int64_t /*now*/) {
    const RtspHelper &rtsp = *static_cast<RtspHelper *>(helper);
    if (rtsp.server != nullptr) {
        serve_picture(*rtsp.server, {picture.data, picture.size}, picture.is_key);
    }
}

static void take_sound(void *helper, std::span<const uint8_t> samples, int64_t /*now*/) {
    const RtspHelper &rtsp = *static_cast<RtspHelper *>(helper);
    if (rtsp.server != nullptr) {
        serve_sound(*rtsp.server, samples);
    }
}

static void start_when_due(RtspHelper &rtsp, int64_t now) {
    if (now < rtsp.due) {
        return;
    }
    std::string reason;
    rtsp.server = start_rtsp_server(reason);
    rtsp.due = now + nanoseconds_per_second;
    complain_once(rtsp.feed.role, rtsp.server != nullptr ? "serving rtsp://BOARD:8554/live"
                                                         : "cannot serve: " + reason);
}

static void look_after(void *helper, int64_t now) {
    RtspHelper &rtsp = *static_cast<RtspHelper *>(helper);
    if (rtsp.server == nullptr) {
        start_when_due(rtsp, now);
        return;
    }
    offer_sound(*rtsp.server, has_sound(rtsp.feed, now) && has_element("voaacenc"));
    const unsigned viewers = rtsp_viewers(*rtsp.server);
    if (viewers != rtsp.viewers) {
        publish_number(number_file, viewers);
        rtsp.viewers = viewers;
    }
}

static void stop(void * /*helper*/) {
    publish_number(number_file, 0);
}

int run_rtsp_server() {
    RtspHelper rtsp;
    if (!open_role(rtsp.feed.role)) {
        return 1;
    }
    publish_number(number_file, 0);
    return run_live(rtsp.feed, {is_on, take_picture, take_sound, look_after, stop}, &rtsp);
}
