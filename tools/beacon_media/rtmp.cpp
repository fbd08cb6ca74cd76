#include "beacon_media/rtmp.h"

#include "beacon_media/address.h"
#include "beacon_media/live.h"
#include "beacon_media/live_output.h"
#include "source/complain.h"

#include <vector>

constexpr const char *number_file = "rtmp-streamer.info";

struct RtmpRestreamer {
    LiveFeed feed;
    std::vector<LiveOutput> outputs;
    int64_t published = 0;
};

// The key is no part of the name: it is a secret, and the name goes into the journal.
static void add_output(RtmpRestreamer &restreamer, int is_enabled, const std::string &url,
                       const std::string &key) {
    if (is_enabled == 0 || url.empty()) {
        return;
    }
    LiveOutput output;
    output.name = shown_rtmp_address(url, key);
    const std::string fault = rtmp_fault(url, key);
    if (!fault.empty()) {
        complain("%s: %s", output.name.c_str(), fault.c_str());
        return;
    }
    // In larger pieces than the usual 128 bytes, which take more work than all the rest.
    output.mux = "flvmux name=mux streamable=true"
                 " ! rtmp2sink name=output sync=false chunk-size=4096";
    output.property = "location";
    output.value = key.empty() ? url : url + (url.ends_with('/') ? "" : "/") + key;
    restreamer.outputs.push_back(output);
}

// A change of the settings ends this process, so they are read once.
static bool is_on(void *helper) {
    return !static_cast<RtmpRestreamer *>(helper)->outputs.empty();
}

static void take_picture(void *helper, const Piece &picture, int64_t now) {
    auto &restreamer = *static_cast<RtmpRestreamer *>(helper);
    for (LiveOutput &output : restreamer.outputs) {
        send_picture(output, picture, has_sound(restreamer.feed, now), now);
    }
}

static void take_sound(void *helper, std::span<const uint8_t> samples, int64_t now) {
    for (LiveOutput &output : static_cast<RtmpRestreamer *>(helper)->outputs) {
        send_live_sound(output, samples, now);
    }
}

// Kilobits in the last second, of all outputs.
static void look_after(void *helper, int64_t now) {
    auto &restreamer = *static_cast<RtmpRestreamer *>(helper);
    for (LiveOutput &output : restreamer.outputs) {
        look_after_output(output, now);
    }
    const int64_t elapsed = now - restreamer.published;
    if (elapsed >= nanoseconds_per_second) {
        constexpr uint64_t bits_per_kilobit_ns = 8 * 1000000;
        uint64_t bytes = 0;
        for (LiveOutput &output : restreamer.outputs) {
            bytes += newly_sent(output);
        }
        publish_number(number_file, bytes * bits_per_kilobit_ns / static_cast<uint64_t>(elapsed));
        restreamer.published = now;
    }
}

static void stop(void *helper) {
    publish_number(number_file, 0); // first: to close an output may take its time
    for (LiveOutput &output : static_cast<RtmpRestreamer *>(helper)->outputs) {
        close_output(output);
    }
}

int run_rtmp_restreamer() {
    RtmpRestreamer restreamer;
    if (!open_role(restreamer.feed.role)) {
        return 1;
    }
    const BoardSettings &settings = restreamer.feed.role.settings;
    add_output(restreamer, settings.stream_rtmp_enabled, settings.stream_rtmp_url,
               settings.stream_rtmp_key);
    add_output(restreamer, settings.stream2_rtmp_enabled, settings.stream2_rtmp_url,
               settings.stream2_rtmp_key);
    publish_number(number_file, 0);
    return run_live(restreamer.feed, {is_on, take_picture, take_sound, look_after, stop},
                    &restreamer);
}
