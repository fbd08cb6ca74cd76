#include "beacon_media/rtsp_server.h"

#include "source/audio_format.h"

#include <atomic>
#include <gst/app/gstappsrc.h>
#include <gst/rtsp-server/rtsp-server.h>
#include <mutex>
#include <thread>
#include <vector>

constexpr const char *port = "8554";
constexpr const char *path = "/live";

// What viewers share, made when the first one comes and gone with the last.
struct Shared {
    void *media = nullptr; // tells it from others
    GstElement *video = nullptr;
    GstElement *sound = nullptr; // null: without
    bool waits_for_key = true;
};

struct RtspServer {
    GstRTSPServer *server = nullptr;
    GstRTSPMediaFactory *factory = nullptr;
    bool with_sound = false;
    std::mutex lock; // of the rest: the server's threads make it
    // One, or two for a while: of viewers who came before there was sound, and of those after.
    std::vector<Shared> shared;
};

static std::string media_words(bool with_sound) {
    std::string words = "( appsrc name=video is-live=true do-timestamp=true format=time max-bytes=0"
                        " caps=video/x-h264,stream-format=byte-stream,alignment=au"
                        " ! rtph264pay name=pay0 pt=96 config-interval=-1";
    if (with_sound) {
        words += " appsrc name=sound is-live=true do-timestamp=true format=time max-bytes=0"
                 " caps=audio/x-raw,format=S16LE,layout=interleaved,channels=1,rate=" +
                 std::to_string(audio_rate) +
                 " ! voaacenc bitrate=48000 ! aacparse ! rtpmp4gpay name=pay1 pt=97";
    }
    return words + " )";
}

static void forget_media(gpointer data, GObject *media) {
    RtspServer &server = *static_cast<RtspServer *>(data);
    const std::scoped_lock hold(server.lock);
    for (auto shared = server.shared.begin(); shared != server.shared.end(); ++shared) {
        if (shared->media == media) {
            g_clear_object(&shared->video);
            g_clear_object(&shared->sound);
            server.shared.erase(shared);
            return;
        }
    }
}

static void configured(GstRTSPMediaFactory * /*factory*/, GstRTSPMedia *media, gpointer data) {
    RtspServer &server = *static_cast<RtspServer *>(data);
    GstElement *element = gst_rtsp_media_get_element(media);
    Shared shared;
    shared.media = media;
    shared.video = gst_bin_get_by_name(GST_BIN(element), "video");
    shared.sound = gst_bin_get_by_name(GST_BIN(element), "sound");
    gst_object_unref(element);
    g_object_weak_ref(G_OBJECT(media), forget_media, data);
    // As it comes, without waiting for a clock.
    gst_rtsp_media_set_rate_control(media, FALSE);
    const std::scoped_lock hold(server.lock);
    server.shared.push_back(shared);
}

// Viewers share what was made with the same key. By default that is the whole URL, so each other
// query would have a pipeline of its own.
static gchar *sharing_key(GstRTSPMediaFactory *factory, const GstRTSPUrl * /*url*/) {
    return gst_rtsp_media_factory_get_launch(factory);
}

// A viewer that has vanished keeps its connection: the server closes that, too.
static void connected(GstRTSPServer * /*server*/, GstRTSPClient *client, gpointer /*data*/) {
    constexpr int seconds_after_session = 2;
    g_object_set(client, "post-session-timeout", seconds_after_session, nullptr);
}

// The server ends no session by itself whose viewer has vanished.
static gboolean end_lost_sessions(gpointer server) {
    GstRTSPSessionPool *pool = gst_rtsp_server_get_session_pool(GST_RTSP_SERVER(server));
    gst_rtsp_session_pool_cleanup(pool);
    g_object_unref(pool);
    return G_SOURCE_CONTINUE;
}

RtspServer *start_rtsp_server(std::string &reason) {
    auto *server = new RtspServer;
    server->server = gst_rtsp_server_new();
    gst_rtsp_server_set_service(server->server, port);
    server->factory = gst_rtsp_media_factory_new();
    gst_rtsp_media_factory_set_shared(server->factory, TRUE);
    GST_RTSP_MEDIA_FACTORY_GET_CLASS(server->factory)->gen_key = sharing_key;
    gst_rtsp_media_factory_set_launch(server->factory, media_words(false).c_str());
    g_signal_connect(server->factory, "media-configure", G_CALLBACK(configured), server);
    g_signal_connect(server->server, "client-connected", G_CALLBACK(connected), nullptr);
    GstRTSPMountPoints *mounts = gst_rtsp_server_get_mount_points(server->server);
    gst_rtsp_mount_points_add_factory(mounts, path, server->factory);
    g_object_unref(mounts);
    if (gst_rtsp_server_attach(server->server, nullptr) == 0) {
        reason = std::string("port ") + port + " is taken";
        g_object_unref(server->server);
        delete server;
        return nullptr;
    }
    g_timeout_add_seconds(2, end_lost_sessions, server->server);
    std::thread([] { g_main_loop_run(g_main_loop_new(nullptr, FALSE)); }).detach();
    return server;
}

void offer_sound(RtspServer &server, bool with_sound) {
    if (with_sound != server.with_sound) {
        server.with_sound = with_sound;
        gst_rtsp_media_factory_set_launch(server.factory, media_words(with_sound).c_str());
    }
}

// A viewer that does not read must not fill the memory.
static bool push(GstElement *source, std::span<const uint8_t> data) {
    constexpr guint64 most_waiting = 8000000;
    if (gst_app_src_get_current_level_bytes(GST_APP_SRC(source)) > most_waiting) {
        return false;
    }
    GstBuffer *buffer = gst_buffer_new_memdup(data.data(), data.size());
    return gst_app_src_push_buffer(GST_APP_SRC(source), buffer) == GST_FLOW_OK;
}

void serve_picture(RtspServer &server, std::span<const uint8_t> picture, bool is_key) {
    const std::scoped_lock hold(server.lock);
    for (Shared &shared : server.shared) {
        if (is_key || !shared.waits_for_key) {
            shared.waits_for_key = !push(shared.video, picture);
        }
    }
}

void serve_sound(RtspServer &server, std::span<const uint8_t> samples) {
    const std::scoped_lock hold(server.lock);
    for (const Shared &shared : server.shared) {
        if (shared.sound != nullptr && !shared.waits_for_key) {
            push(shared.sound, samples);
        }
    }
}

unsigned rtsp_viewers(RtspServer &server) {
    GList *clients = gst_rtsp_server_client_filter(server.server, nullptr, nullptr);
    const unsigned count = g_list_length(clients);
    g_list_free_full(clients, g_object_unref);
    return count;
}
