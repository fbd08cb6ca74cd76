#include "beacon_media/srt.h"

#include "beacon_media/live.h"
#include "beacon_media/live_output.h"
#include "source/complain.h"

#include <cstdio>
#include <ctime>

constexpr const char *scheme = "srt://";
// The daemon tells clients how long ago the time in it was; 0: nobody is connected.
constexpr const char *connected_file = "/tmp/srt-client-connect-timestamp";

struct SrtRestreamer {
    LiveFeed feed;
    LiveOutput output;
    bool is_connected = false;
};

static void publish_time(int64_t seconds) {
    FILE *file = fopen(connected_file, "we");
    if (file != nullptr) {
        fprintf(file, "%lld\n", static_cast<long long>(seconds));
        fclose(file);
    }
}

static void note_connection(SrtRestreamer &restreamer, bool is_connected) {
    if (is_connected != restreamer.is_connected) {
        complain("%s: %s", restreamer.output.name.c_str(),
                 is_connected ? "connected" : "nobody is connected any more");
        publish_time(is_connected ? time(nullptr) : 0);
        restreamer.is_connected = is_connected;
    }
}

static bool is_on(void *helper) {
    const auto &restreamer = *static_cast<SrtRestreamer *>(helper);
    const BoardSettings &settings = restreamer.feed.role.settings;
    return settings.stream_srt_enabled != 0 && settings.stream_srt_url.starts_with(scheme);
}

static void take_picture(void *helper, const Piece &picture, int64_t now) {
    auto &restreamer = *static_cast<SrtRestreamer *>(helper);
    send_picture(restreamer.output, picture, has_sound(restreamer.feed, now), now);
}

static void take_sound(void *helper, std::span<const uint8_t> samples, int64_t now) {
    send_live_sound(static_cast<SrtRestreamer *>(helper)->output, samples, now);
}

static void look_after(void *helper, int64_t now) {
    auto &restreamer = *static_cast<SrtRestreamer *>(helper);
    look_after_output(restreamer.output, now);
    note_connection(restreamer, output_is_open(restreamer.output) &&
                                    has_srt_peer(*restreamer.output.input.pipeline, "output"));
}

static void stop(void *helper) {
    auto &restreamer = *static_cast<SrtRestreamer *>(helper);
    note_connection(restreamer, false); // first: to close the output may take its time
    close_output(restreamer.output);
}

int run_srt_restreamer() {
    SrtRestreamer restreamer;
    if (!open_role(restreamer.feed.role)) {
        return 1;
    }
    end_in_time(restreamer.feed.role);
    LiveOutput &output = restreamer.output;
    output.value = restreamer.feed.role.settings.stream_srt_url;
    // What follows may be a password.
    output.name = output.value.substr(0, output.value.find('?'));
    output.mux = "mpegtsmux name=mux alignment=7"
                 " ! srtsink name=output sync=false wait-for-connection=false";
    output.property = "uri";
    publish_time(0);
    if (restreamer.feed.role.settings.stream_srt_enabled != 0 &&
        !output.value.starts_with(scheme)) {
        complain("%s: this is no srt:// address", output.name.c_str());
    }
    return run_live(restreamer.feed, {is_on, take_picture, take_sound, look_after, stop},
                    &restreamer);
}
