#include "beacon_media/live_output.h"

#include "source/complain.h"

#include <algorithm>
#include <utility>

constexpr int64_t shortest_pause = nanoseconds_per_second;
constexpr int64_t longest_pause = 30 * nanoseconds_per_second;
// What has run for so long works.
constexpr int64_t trial = 5 * nanoseconds_per_second;
// Unless so much waits to be sent: the engine takes pictures before anything is connected.
constexpr int64_t longest_waiting = nanoseconds_per_second;
// Nothing is kept open without pictures: sound would wait for them.
constexpr int64_t silence = 10 * nanoseconds_per_second;

static void fail(LiveOutput &output, const std::string &reason, int64_t now) {
    close_output(output);
    if (output.said != reason) {
        complain("%s: %s, trying again", output.name.c_str(), reason.c_str());
        output.said = reason;
    }
    output.due = now + output.pause;
    output.pause = std::min(2 * output.pause, longest_pause);
}

static void begin_output(LiveOutput &output, bool with_sound, int64_t begin, int64_t now) {
    std::string reason;
    const std::string words = av_words(output.mux, with_sound);
    output.input = {};
    output.input.has_sound = with_sound;
    output.input.begin = begin;
    output.counted = 0;
    output.input.pipeline =
        start_pipeline({words, output.property, output.value, "output"}, nullptr, -1, reason);
    if (!output_is_open(output)) {
        fail(output, reason, now);
    }
}

static bool is_silent(const LiveOutput &output, int64_t now) {
    return output_is_open(output) && now - output.picture_heard > silence;
}

static void begin_with_key_frame(LiveOutput &output, int64_t begin, bool with_sound, int64_t now) {
    if (output_is_open(output) && with_sound && !output.input.has_sound) {
        close_output(output);
        // A server may refuse a stream that it has not seen the end of.
        output.due = now + shortest_pause;
    }
    if (!output_is_open(output) && now >= output.due) {
        begin_output(output, with_sound, begin, now);
    }
}

void send_picture(LiveOutput &output, const Piece &picture, bool with_sound, int64_t now) {
    if (is_silent(output, now)) {
        close_output(output);
    }
    output.picture_heard = now;
    if (picture.is_key) {
        begin_with_key_frame(output, picture.stamp, with_sound && can_encode_sound(), now);
    }
    if (output_is_open(output) && !add_picture(output.input, picture, picture.stamp)) {
        look_after_output(output, now);
        if (output_is_open(output)) {
            fail(output, "it does not take the stream fast enough", now);
        }
    }
}

void send_live_sound(LiveOutput &output, std::span<const uint8_t> samples, int64_t now) {
    if (output_is_open(output)) {
        add_sound(output.input, samples, now);
    }
}

void look_after_output(LiveOutput &output, int64_t now) {
    if (is_silent(output, now)) {
        close_output(output);
    }
    if (!output_is_open(output)) {
        return;
    }
    std::string reason;
    const PipelineState state = check_pipeline(*output.input.pipeline, reason);
    if (state != PipelineState::running) {
        fail(output, state == PipelineState::ended ? "the other side ended the stream" : reason,
             now);
    } else if (output.input.last > trial && !output.said.empty() &&
               waiting_data(*output.input.pipeline, "video").time < longest_waiting) {
        complain("%s: the stream runs", output.name.c_str());
        output.said.clear();
        output.pause = shortest_pause;
    }
}

uint64_t newly_sent(LiveOutput &output) {
    if (!output_is_open(output)) {
        return 0;
    }
    const uint64_t sent =
        output.input.picture_bytes - waiting_data(*output.input.pipeline, "video").bytes;
    return sent - std::exchange(output.counted, sent);
}

void close_output(LiveOutput &output) {
    stop_pipeline(output.input.pipeline);
    output.input.pipeline = nullptr;
}
