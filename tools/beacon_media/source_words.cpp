#include "beacon_media/source_words.h"

#include <string_view>

// Splits the stream into access units, whatever it looks like. What comes after is a queue: a short
// one for files, which wait for it, and one that a camera never fills.
static std::string split_into_queue(unsigned length) {
    return " ! h264parse config-interval=-1"
           " ! video/x-h264,stream-format=byte-stream,alignment=au"
           " ! appsink name=pictures sync=false max-buffers=" +
           std::to_string(length);
}

std::optional<SourceWords> parse_source(const std::string &text) {
    constexpr std::string_view command = "exec:";
    if (text == "-") {
        return SourceWords{SourceKind::input, text};
    }
    if (text == "test") {
        return SourceWords{SourceKind::test, text};
    }
    if (text.starts_with(command)) {
        const std::string words = text.substr(command.size());
        if (words.find_first_not_of(" \t\n") == std::string::npos) {
            return std::nullopt;
        }
        return SourceWords{SourceKind::command, words};
    }
    if (text.starts_with("rtsp://") || text.starts_with("rtsps://")) {
        return SourceWords{SourceKind::rtsp, text};
    }
    if (text.starts_with("/dev/")) {
        return SourceWords{SourceKind::device, text};
    }
    if (text.empty() || text.find("://") != std::string::npos) {
        return std::nullopt;
    }
    return SourceWords{SourceKind::file, text};
}

// x264 would rather keep what the source has, up to 4:4:4 with ten bits, which browsers and
// hardware cannot decode.
static std::string raw_caps(const EncoderWords &words) {
    return "video/x-raw,format={I420,NV12},width=" + std::to_string(words.width) +
           ",height=" + std::to_string(words.height) + ",framerate=" + std::to_string(words.rate) +
           "/1";
}

// A key frame every second.
static std::string encoder_text(const EncoderWords &words, bool is_hardware) {
    if (is_hardware) {
        return " ! v4l2h264enc extra-controls=\"controls,repeat_sequence_header=1,video_bitrate=" +
               std::to_string(words.bitrate * 1000) +
               ",h264_i_frame_period=" + std::to_string(words.rate) +
               "\" ! video/x-h264,level=(string)4";
    }
    // Half a second's bits at most for one picture, and never more than fit into a slot.
    return " ! x264enc tune=zerolatency speed-preset=ultrafast vbv-buf-capacity=300 bitrate=" +
           std::to_string(words.bitrate) + " key-int-max=" + std::to_string(words.rate);
}

static std::string test_text(const EncoderWords &words, const EngineParts &parts) {
    std::string text = "videotestsrc is-live=true pattern=ball ! " + raw_caps(words);
    if (parts.has_clock) {
        text += " ! clockoverlay halignment=center valignment=center shaded-background=true";
    }
    return text + encoder_text(words, false);
}

static std::string device_text(const EncoderWords &words, const EngineParts &parts) {
    const std::string device = "v4l2src name=input";
    if (parts.device_gives_h264) {
        return device + " ! video/x-h264";
    }
    return device + " ! decodebin ! videoconvert ! videoscale ! videorate ! " + raw_caps(words) +
           encoder_text(words, parts.has_hardware_encoder);
}

PipelineWords video_pipeline(const SourceWords &source, const EncoderWords &encoder,
                             const EngineParts &parts) {
    const std::string live = split_into_queue(200);
    switch (source.kind) {
    case SourceKind::input:
    case SourceKind::command:
        return {"fdsrc name=input do-timestamp=true blocksize=65536" + live, "", ""};
    case SourceKind::file:
        return {"filesrc name=input ! parsebin" + split_into_queue(8), "location", source.text};
    case SourceKind::test:
        return {test_text(encoder, parts) + live, "", ""};
    case SourceKind::device:
        return {device_text(encoder, parts) + live, "device", source.text};
    case SourceKind::rtsp:
        return {"rtspsrc name=input latency=100 ! rtph264depay" + live, "location", source.text};
    }
    return {};
}

std::optional<PipelineWords> audio_pipeline(const std::string &text) {
    const std::string sink =
        " ! audioconvert ! audioresample ! audio/x-raw,format=S16LE,channels=1,rate=16000"
        " ! appsink name=sound sync=false max-buffers=200 drop=true";
    constexpr std::string_view alsa = "alsa:";
    if (text == "none") {
        return PipelineWords{};
    }
    if (text == "test") {
        return PipelineWords{"audiotestsrc is-live=true freq=440" + sink, "", ""};
    }
    if (text.starts_with(alsa) && text.size() > alsa.size()) {
        return PipelineWords{"alsasrc name=input" + sink, "device", text.substr(alsa.size())};
    }
    return std::nullopt;
}
