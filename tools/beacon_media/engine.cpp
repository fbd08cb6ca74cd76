#include "beacon_media/engine.h"

#include "source/complain.h"

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>

struct Pipeline {
    GstElement *element = nullptr;
    GstAppSink *sink = nullptr;
    GstSample *sample = nullptr; // the last piece
    GstMapInfo map{};
};

bool init_engine() {
    GError *error = nullptr;
    if (gst_is_initialized() != 0 || gst_init_check(nullptr, nullptr, &error) != 0) {
        return true;
    }
    complain("GStreamer does not start: %s", error != nullptr ? error->message : "no reason given");
    g_clear_error(&error);
    return false;
}

bool has_element(const char *name) {
    GstElementFactory *factory = gst_element_factory_find(name);
    if (factory == nullptr) {
        return false;
    }
    gst_object_unref(factory);
    return true;
}

static bool pad_gives_h264(GstElement *device) {
    GstPad *pad = gst_element_get_static_pad(device, "src");
    GstCaps *wanted = gst_caps_new_empty_simple("video/x-h264");
    GstCaps *found = gst_pad_query_caps(pad, wanted);
    const bool result = gst_caps_is_empty(found) == 0;
    gst_caps_unref(found);
    gst_caps_unref(wanted);
    gst_object_unref(pad);
    return result;
}

// Opens the device to ask it.
static bool device_gives_h264(const std::string &path) {
    GstElement *device = gst_element_factory_make("v4l2src", nullptr);
    if (device == nullptr) {
        return false;
    }
    g_object_set(device, "device", path.c_str(), nullptr);
    const bool result =
        gst_element_set_state(device, GST_STATE_READY) != GST_STATE_CHANGE_FAILURE &&
        pad_gives_h264(device);
    gst_element_set_state(device, GST_STATE_NULL);
    gst_object_unref(device);
    return result;
}

EngineParts find_engine_parts(const SourceWords &source) {
    EngineParts parts;
    parts.has_clock = has_element("clockoverlay");
    parts.has_hardware_encoder = has_element("v4l2h264enc");
    parts.device_gives_h264 = source.kind == SourceKind::device && device_gives_h264(source.text);
    return parts;
}

static void set_property(GstElement *element, const PipelineWords &words, int fd) {
    GstElement *input = gst_bin_get_by_name(GST_BIN(element), words.element.c_str());
    if (input == nullptr) {
        return;
    }
    if (!words.property.empty()) {
        g_object_set(input, words.property.c_str(), words.value.c_str(), nullptr);
    }
    if (fd >= 0) {
        g_object_set(input, "fd", fd, nullptr);
    }
    gst_object_unref(input);
}

Pipeline *start_pipeline(const PipelineWords &words, const char *sink, int fd,
                         std::string &reason) {
    GError *error = nullptr;
    GstElement *element = gst_parse_launch(words.description.c_str(), &error);
    if (error != nullptr) {
        reason = error->message;
        g_clear_error(&error);
        g_clear_object(&element);
        return nullptr;
    }
    auto *pipeline = new Pipeline;
    pipeline->element = element;
    if (sink != nullptr) {
        pipeline->sink = GST_APP_SINK(gst_bin_get_by_name(GST_BIN(element), sink));
    }
    set_property(element, words, fd);
    // A failure is also a message, which check_pipeline finds.
    gst_element_set_state(element, GST_STATE_PLAYING);
    return pipeline;
}

static GstElement *element_of(const Pipeline &pipeline, const char *name) {
    return gst_bin_get_by_name(GST_BIN(pipeline.element), name);
}

bool push_data(Pipeline &pipeline, const char *input, std::span<const uint8_t> data,
               int64_t stamp) {
    constexpr guint64 most_waiting = 16000000;
    GstElement *element = element_of(pipeline, input);
    if (element == nullptr) {
        return false;
    }
    bool is_taken = false;
    if (gst_app_src_get_current_level_bytes(GST_APP_SRC(element)) < most_waiting) {
        GstBuffer *buffer = gst_buffer_new_memdup(data.data(), data.size());
        GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(stamp);
        GST_BUFFER_DTS(buffer) = static_cast<GstClockTime>(stamp);
        is_taken = gst_app_src_push_buffer(GST_APP_SRC(element), buffer) == GST_FLOW_OK;
    }
    gst_object_unref(element);
    return is_taken;
}

Waiting waiting_data(Pipeline &pipeline, const char *input) {
    Waiting waiting;
    GstElement *element = element_of(pipeline, input);
    if (element != nullptr) {
        waiting.bytes = gst_app_src_get_current_level_bytes(GST_APP_SRC(element));
        waiting.time =
            static_cast<int64_t>(gst_app_src_get_current_level_time(GST_APP_SRC(element)));
        gst_object_unref(element);
    }
    return waiting;
}

void end_input(Pipeline &pipeline, const char *input) {
    GstElement *element = element_of(pipeline, input);
    if (element != nullptr) {
        gst_app_src_end_of_stream(GST_APP_SRC(element));
        gst_object_unref(element);
    }
}

// The element tells about each one who has connected to it in a list, and about the one it has
// connected to itself directly.
static bool tells_of_peer(const GstStructure *statistics) {
    const GValue *callers = gst_structure_get_value(statistics, "callers");
    if (callers == nullptr) {
        gint64 packets = 0;
        return gst_structure_get_int64(statistics, "packets-sent", &packets) != 0 && packets > 0;
    }
    G_GNUC_BEGIN_IGNORE_DEPRECATIONS
    const auto *list = static_cast<const GValueArray *>(g_value_get_boxed(callers));
    G_GNUC_END_IGNORE_DEPRECATIONS
    return list != nullptr && list->n_values > 0;
}

bool has_srt_peer(const Pipeline &pipeline, const char *output) {
    GstElement *element = element_of(pipeline, output);
    GstStructure *statistics = nullptr;
    g_object_get(element, "stats", &statistics, nullptr);
    gst_object_unref(element);
    if (statistics == nullptr) {
        return false;
    }
    const bool result = tells_of_peer(statistics);
    gst_structure_free(statistics);
    return result;
}

static void release_sample(Pipeline &pipeline) {
    if (pipeline.sample != nullptr) {
        gst_buffer_unmap(gst_sample_get_buffer(pipeline.sample), &pipeline.map);
        gst_sample_unref(pipeline.sample);
        pipeline.sample = nullptr;
    }
}

static int64_t known_time(GstClockTime time) {
    return GST_CLOCK_TIME_IS_VALID(time) ? static_cast<int64_t>(time) : -1;
}

static int64_t age_of(const Pipeline &pipeline, const GstBuffer *buffer) {
    const GstSegment *segment = gst_sample_get_segment(pipeline.sample);
    const GstClockTime now = gst_element_get_current_running_time(pipeline.element);
    const GstClockTime then =
        gst_segment_to_running_time(segment, GST_FORMAT_TIME, GST_BUFFER_PTS(buffer));
    if (!GST_CLOCK_TIME_IS_VALID(now) || !GST_CLOCK_TIME_IS_VALID(then)) {
        return -1;
    }
    return static_cast<int64_t>(now) - static_cast<int64_t>(then);
}

bool next_piece(Pipeline &pipeline, int64_t wait_ns, Piece &piece) {
    release_sample(pipeline);
    pipeline.sample =
        gst_app_sink_try_pull_sample(pipeline.sink, static_cast<GstClockTime>(wait_ns));
    if (pipeline.sample == nullptr) {
        return false;
    }
    GstBuffer *buffer = gst_sample_get_buffer(pipeline.sample);
    if (gst_buffer_map(buffer, &pipeline.map, GST_MAP_READ) == 0) {
        gst_sample_unref(pipeline.sample);
        pipeline.sample = nullptr;
        return false;
    }
    piece.data = pipeline.map.data;
    piece.size = pipeline.map.size;
    piece.is_key = !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
    piece.stamp = known_time(GST_BUFFER_DTS_OR_PTS(buffer));
    piece.duration = known_time(GST_BUFFER_DURATION(buffer));
    piece.age = age_of(pipeline, buffer);
    return true;
}

static std::string error_text(GstMessage *message) {
    GError *error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    std::string text = error != nullptr ? error->message : "no reason given";
    g_clear_error(&error);
    if (text.ends_with('.')) {
        text.pop_back();
    }
    return text;
}

static bool has_ended(GstBus *bus) {
    GstMessage *message = gst_bus_pop_filtered(bus, GST_MESSAGE_EOS);
    if (message == nullptr) {
        return false;
    }
    gst_message_unref(message);
    return true;
}

PipelineState check_pipeline(Pipeline &pipeline, std::string &reason) {
    GstBus *bus = gst_element_get_bus(pipeline.element);
    PipelineState state = PipelineState::running;
    // Errors first: the end of the stream follows some of them.
    GstMessage *message = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR);
    if (message != nullptr) {
        reason = error_text(message);
        gst_message_unref(message);
        state = PipelineState::failed;
    } else if (pipeline.sink != nullptr ? gst_app_sink_is_eos(pipeline.sink) != 0
                                        : has_ended(bus)) {
        state = PipelineState::ended;
    }
    gst_object_unref(bus);
    return state;
}

bool drain_pipeline(Pipeline &pipeline, int64_t wait_ns, std::string &reason) {
    GstBus *bus = gst_element_get_bus(pipeline.element);
    GstMessage *message = gst_bus_timed_pop_filtered(
        bus, static_cast<GstClockTime>(wait_ns),
        static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_EOS));
    const bool is_over = message != nullptr && GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS;
    if (message != nullptr) {
        reason = is_over ? "" : error_text(message);
        gst_message_unref(message);
    }
    gst_object_unref(bus);
    return is_over;
}

void stop_pipeline(Pipeline *pipeline) {
    if (pipeline == nullptr) {
        return;
    }
    release_sample(*pipeline);
    gst_element_set_state(pipeline->element, GST_STATE_NULL);
    g_clear_object(&pipeline->sink);
    g_clear_object(&pipeline->element);
    delete pipeline;
}
