#include "beacon_media/splitter.h"

#include "source/clocks.h"
#include "source/complain.h"

#include <deque>
#include <gst/gst.h>
#include <string>

struct SplitPicture {
    GstBuffer *buffer = nullptr;
    PictureSize size;
};

struct Parser {
    GstElement *element = nullptr;
    GstPad *in = nullptr;  // to the element
    GstPad *out = nullptr; // from it
    GstBus *bus = nullptr;
    PictureSize size;                 // of the next picture
    std::deque<SplitPicture> waiting; // to be taken
    SplitPicture last;
    GstMapInfo map{};                       // of the last one, if it has a buffer
    std::string reason = "no reason given"; // of a failure
};

static GstFlowReturn keep_picture(GstPad *pad, GstObject * /*parent*/, GstBuffer *buffer) {
    Parser &parser = *static_cast<Parser *>(gst_pad_get_element_private(pad));
    parser.waiting.push_back({buffer, parser.size});
    return GST_FLOW_OK;
}

static gboolean take_event(GstPad *pad, GstObject * /*parent*/, GstEvent *event) {
    if (GST_EVENT_TYPE(event) == GST_EVENT_CAPS) {
        PictureSize &size = static_cast<Parser *>(gst_pad_get_element_private(pad))->size;
        GstCaps *caps = nullptr;
        gst_event_parse_caps(event, &caps);
        const GstStructure *structure = gst_caps_get_structure(caps, 0);
        gst_structure_get_int(structure, "width", &size.width);
        gst_structure_get_int(structure, "height", &size.height);
    }
    gst_event_unref(event);
    return TRUE;
}

// Of the element's messages only the reason of a failure is kept.
static GstBusSyncReply take_message(GstBus * /*bus*/, GstMessage *message, gpointer parser) {
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
        GError *error = nullptr;
        gst_message_parse_error(message, &error, nullptr);
        static_cast<Parser *>(parser)->reason = error->message;
        g_error_free(error);
    }
    gst_message_unref(message);
    return GST_BUS_DROP;
}

static GstPad *pad_for_pictures(Parser &parser) {
    static GstStaticPadTemplate pictures = GST_STATIC_PAD_TEMPLATE(
        "pictures", GST_PAD_SINK, GST_PAD_ALWAYS,
        GST_STATIC_CAPS("video/x-h264,stream-format=byte-stream,alignment=au"));
    GstPad *pad = gst_pad_new_from_static_template(&pictures, "pictures");
    gst_pad_set_element_private(pad, &parser);
    gst_pad_set_chain_function(pad, keep_picture);
    gst_pad_set_event_function(pad, take_event);
    return pad;
}

static void link_to_element(Parser &parser) {
    GstPad *sink = gst_element_get_static_pad(parser.element, "sink");
    GstPad *source = gst_element_get_static_pad(parser.element, "src");
    gst_pad_link(parser.in, sink);
    gst_pad_link(source, parser.out);
    gst_object_unref(sink);
    gst_object_unref(source);
}

static void announce_stream(GstPad *in) {
    GstCaps *caps = gst_caps_from_string("video/x-h264,stream-format=byte-stream");
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    gst_pad_push_event(in, gst_event_new_stream_start("daemon"));
    gst_pad_push_event(in, gst_event_new_caps(caps));
    gst_pad_push_event(in, gst_event_new_segment(&segment));
    gst_caps_unref(caps);
}

static Parser *start_parser() {
    GstElement *element = gst_element_factory_make("h264parse", nullptr);
    if (element == nullptr) {
        return nullptr;
    }
    auto *parser = new Parser;
    parser->element = element;
    // Parameter sets before every key frame.
    g_object_set(element, "config-interval", -1, nullptr);
    parser->bus = gst_bus_new();
    gst_bus_set_sync_handler(parser->bus, take_message, parser, nullptr);
    gst_element_set_bus(element, parser->bus);
    parser->in = gst_pad_new("stream", GST_PAD_SRC);
    parser->out = pad_for_pictures(*parser);
    link_to_element(*parser);
    gst_pad_set_active(parser->out, TRUE);
    gst_pad_set_active(parser->in, TRUE);
    gst_element_set_state(element, GST_STATE_PLAYING);
    announce_stream(parser->in);
    return parser;
}

static void forget_last(Parser &parser) {
    if (parser.last.buffer != nullptr) {
        gst_buffer_unmap(parser.last.buffer, &parser.map);
        gst_buffer_unref(parser.last.buffer);
        parser.last.buffer = nullptr;
    }
}

static void stop_parser(Parser *parser) {
    forget_last(*parser);
    for (const SplitPicture &picture : parser->waiting) {
        gst_buffer_unref(picture.buffer);
    }
    gst_element_set_state(parser->element, GST_STATE_NULL);
    gst_pad_set_active(parser->in, FALSE);
    gst_pad_set_active(parser->out, FALSE);
    gst_object_unref(parser->element);
    gst_object_unref(parser->in);
    gst_object_unref(parser->out);
    gst_object_unref(parser->bus);
    delete parser;
}

void push_stream(Splitter &splitter, std::span<const uint8_t> data, int64_t now) {
    if (splitter.parser == nullptr) {
        splitter.parser = start_parser();
    }
    if (splitter.parser == nullptr) {
        complain("GStreamer cannot do this: there is no element \"h264parse\"");
        return;
    }
    GstBuffer *buffer = gst_buffer_new_memdup(data.data(), data.size());
    GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(now);
    GST_BUFFER_DTS(buffer) = static_cast<GstClockTime>(now);
    if (gst_pad_push(splitter.parser->in, buffer) != GST_FLOW_OK) {
        complain("the stream cannot be read: %s", splitter.parser->reason.c_str());
        stop_splitter(splitter);
    }
}

bool next_picture(Splitter &splitter, Piece &picture) {
    constexpr int64_t usual = nanoseconds_per_second / 30;
    if (splitter.parser == nullptr || splitter.parser->waiting.empty()) {
        return false;
    }
    Parser &parser = *splitter.parser;
    forget_last(parser);
    parser.last = parser.waiting.front();
    parser.waiting.pop_front();
    GstBuffer *buffer = parser.last.buffer;
    if (gst_buffer_map(buffer, &parser.map, GST_MAP_READ) == 0) {
        gst_buffer_unref(buffer);
        parser.last.buffer = nullptr;
        return false;
    }
    picture.data = parser.map.data;
    picture.size = parser.map.size;
    picture.is_key = !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
    const GstClockTime stamp = GST_BUFFER_DTS_OR_PTS(buffer);
    picture.stamp =
        GST_CLOCK_TIME_IS_VALID(stamp) ? static_cast<int64_t>(stamp) : splitter.last + usual;
    splitter.last = picture.stamp;
    return true;
}

PictureSize picture_size(const Splitter &splitter) {
    return splitter.parser != nullptr ? splitter.parser->last.size : PictureSize{};
}

void end_stream(Splitter &splitter) {
    if (splitter.parser != nullptr) {
        gst_pad_push_event(splitter.parser->in, gst_event_new_eos());
    }
}

void stop_splitter(Splitter &splitter) {
    if (splitter.parser != nullptr) {
        stop_parser(splitter.parser);
        splitter.parser = nullptr;
    }
}
