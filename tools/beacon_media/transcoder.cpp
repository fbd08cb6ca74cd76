#include "beacon_media/transcoder.h"

#include "beacon_media/engine.h"
#include "beacon_media/picture_gate.h"
#include "beacon_media/ring_link.h"
#include "beacon_media/ring_reader.h"
#include "beacon_media/role.h"
#include "source/clocks.h"
#include "source/complain.h"

#include "media/frame_ring_layout.h"

#include <algorithm>
#include <malloc.h>
#include <sys/prctl.h>
#include <unistd.h>

constexpr int idle_ms = 200;
constexpr useconds_t pause_us = 2000; // between looks into the ring
constexpr int64_t pause_after_failure = nanoseconds_per_second;

struct Transcoder {
    Role role;
    RingReader from;
    RingLink to;
    PictureGate encoding;   // of what is encoded
    PictureGate publishing; // of what has been
    int64_t late_at = 0;    // when the encoder was last too late
    unsigned late = 0;      // how often it was, without a minute in between
    Pipeline *pipeline = nullptr;
    int64_t due = 0; // when to start it
};

// Small numbers are kbit/s, as encoders count; large ones bit/s.
static int kilobits(int bitrate) {
    constexpr int usual = 2000;
    constexpr int largest_in_kilobits = 100000;
    if (bitrate <= 0) {
        return usual;
    }
    return bitrate < largest_in_kilobits ? bitrate : bitrate / 1000;
}

static std::string encoder_words(const BoardSettings &settings) {
    const int rate = kilobits(settings.transcoding_bitrate);
    if (has_element("v4l2h264enc")) {
        return " ! v4l2h264enc extra-controls=\"controls,repeat_sequence_header=1,video_bitrate=" +
               std::to_string(rate * 1000) +
               ",h264_i_frame_period=30\""
               " ! video/x-h264,level=(string)4";
    }
    // No picture may be longer than a slot.
    constexpr int most_kilobits = static_cast<int>(transcoding_frame_capacity / 1000 * 8) * 3 / 4;
    const int buffer_ms = std::clamp(most_kilobits * 1000 / rate, 20, 500);
    // Each thread has memory of its own; two encode any picture that fits into the ring in time.
    return " ! x264enc tune=zerolatency speed-preset=ultrafast threads=2 key-int-max=30 bitrate=" +
           std::to_string(rate) + " vbv-buf-capacity=" + std::to_string(buffer_ms);
}

// The decoder in software has as many threads as the machine has cores, and pictures in memory for
// each; one is fast enough for a live stream.
static std::string decoder_words() {
    const bool is_software = !has_element("v4l2h264dec") && has_element("avdec_h264");
    return is_software ? "avdec_h264 max-threads=1" : "decodebin";
}

static std::string transcoder_words(const BoardSettings &settings) {
    std::string words = "appsrc name=input format=time max-bytes=0"
                        " caps=video/x-h264,stream-format=byte-stream,alignment=au"
                        " ! h264parse ! " +
                        decoder_words() + " ! videoconvert";
    // Every player can decode these.
    const std::string format = "video/x-raw,format={I420,NV12}";
    if (settings.resize_enabled != 0 && settings.resize_width > 0 && settings.resize_height > 0) {
        // Encoders want even numbers.
        words += " ! videoscale ! " + format +
                 ",pixel-aspect-ratio=1/1,width=" + std::to_string(settings.resize_width / 2 * 2) +
                 ",height=" + std::to_string(settings.resize_height / 2 * 2);
    } else {
        words += " ! " + format;
    }
    return words + encoder_words(settings) +
           " ! h264parse config-interval=-1"
           " ! video/x-h264,stream-format=byte-stream,alignment=au"
           " ! appsink name=pictures sync=false max-buffers=200";
}

static void stop(Transcoder &transcoder) {
    stop_pipeline(transcoder.pipeline);
    transcoder.pipeline = nullptr;
    transcoder.encoding.waits_for_key = true;
    transcoder.publishing.waits_for_key = true;
}

static void fail(Transcoder &transcoder, const std::string &reason, int64_t now) {
    complain_once(transcoder.role, "cannot encode the stream again: " + reason + ", trying again");
    stop(transcoder);
    transcoder.due = now + pause_after_failure;
}

static void start(Transcoder &transcoder, int64_t now) {
    std::string reason;
    if (now >= transcoder.due && init_engine()) {
        transcoder.pipeline = start_pipeline({transcoder_words(transcoder.role.settings), "", ""},
                                             "pictures", -1, reason);
        if (transcoder.pipeline == nullptr) {
            fail(transcoder, reason, now);
        }
    }
}

static void publish(Transcoder &transcoder, const Piece &picture) {
    const bool has_room = picture.size <= transcoder.to.capacity &&
                          ring_room(transcoder.to, picture.size) == RingRoom::free;
    const Verdict verdict = judge_picture(transcoder.publishing, picture.size, picture.is_key,
                                          transcoder.to.capacity, has_room);
    if (verdict == Verdict::publish) {
        publish_frame(transcoder.to.writer, picture.data, static_cast<uint32_t>(picture.size));
        forget_complaint(transcoder.role);
    } else if (verdict == Verdict::too_long) {
        complain_once(transcoder.role, "dropped a frame of " + std::to_string(picture.size) +
                                           " bytes, a slot of the ring holds " +
                                           std::to_string(transcoder.to.capacity) +
                                           "; a lower bit rate may help");
    }
}

// Once or twice is nothing: an encoder that starts takes its time.
static void note_late(Transcoder &transcoder, int64_t now) {
    constexpr int64_t minute = 60 * nanoseconds_per_second;
    constexpr unsigned often = 3;
    transcoder.late = now - transcoder.late_at < minute ? transcoder.late + 1 : 1;
    transcoder.late_at = now;
    if (transcoder.late == often) {
        complain("this board is too slow to encode the stream again: pictures are left out");
    }
}

// Clients want the picture of now: what waits for the encoder for long is left out, up to the next
// key frame.
static void encode(Transcoder &transcoder, std::span<const uint8_t> frame, int64_t now) {
    constexpr int64_t longest_waiting = nanoseconds_per_second / 2;
    const bool has_room = waiting_data(*transcoder.pipeline, "input").time < longest_waiting;
    const Verdict verdict = judge_picture(transcoder.encoding, frame.size(), begins_stream(frame),
                                          main_frame_capacity, has_room);
    if (verdict == Verdict::publish) {
        push_data(*transcoder.pipeline, "input", frame, now);
    } else if (verdict == Verdict::no_room) {
        note_late(transcoder, now);
    }
}

static void transcode(Transcoder &transcoder) {
    const int64_t now = monotonic_ns();
    if (transcoder.pipeline == nullptr) {
        start(transcoder, now);
    }
    std::span<const uint8_t> frame;
    bool has_any = false;
    // Without a pipeline, too: what waits in the ring for long is of no use.
    while (take_ring_frame(transcoder.from, frame)) {
        has_any = true;
        if (transcoder.pipeline != nullptr) {
            encode(transcoder, frame, now);
        }
    }
    Piece picture;
    while (transcoder.pipeline != nullptr && next_piece(*transcoder.pipeline, 0, picture)) {
        has_any = true;
        publish(transcoder, picture);
    }
    std::string reason;
    if (transcoder.pipeline != nullptr &&
        check_pipeline(*transcoder.pipeline, reason) != PipelineState::running) {
        fail(transcoder, reason, now);
    }
    if (!has_any) {
        usleep(pause_us);
    }
}

// x264 asks for pages of 2 MB, and fills none of them with a picture of usual size; and each thread
// would keep what it has freed to itself.
static void use_little_memory() {
    prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0);
    mallopt(M_ARENA_MAX, 1);
}

int run_transcoder() {
    use_little_memory();
    Transcoder transcoder;
    if (!open_role(transcoder.role)) {
        return 1;
    }
    transcoder.to.name = transcoding_ring_name;
    transcoder.to.capacity = transcoding_frame_capacity;
    // A change of the settings ends this process.
    const bool is_on = transcoder.role.settings.transcoding_enabled != 0;
    while (role_goes_on(transcoder.role, is_on ? 0 : idle_ms)) {
        if (is_on) {
            transcode(transcoder);
        }
    }
    stop(transcoder);
    return 0;
}
