#include "beacon_media/av_input.h"

#include "beacon_media/sound_plan.h"
#include "source/audio_format.h"
#include "source/clocks.h"

#include <algorithm>
#include <vector>

std::string av_words(const std::string &mux, bool has_sound) {
    std::string words = "appsrc name=video format=time max-bytes=0"
                        " caps=video/x-h264,stream-format=byte-stream,alignment=au"
                        " ! h264parse ! " +
                        mux;
    if (has_sound) {
        words += " appsrc name=sound format=time max-bytes=0"
                 " caps=audio/x-raw,format=S16LE,layout=interleaved,channels=1,rate=" +
                 std::to_string(audio_rate) + " ! voaacenc bitrate=48000 ! aacparse ! mux.";
    }
    return words;
}

bool can_encode_sound() {
    return has_element("voaacenc");
}

static int64_t sound_length(size_t bytes) {
    return static_cast<int64_t>(bytes / 2) * nanoseconds_per_second / audio_rate;
}

static bool push_sound(AvInput &input, std::span<const uint8_t> samples) {
    const bool is_taken = push_data(*input.pipeline, "sound", samples, input.sound);
    input.sound += sound_length(samples.size());
    input.bytes += samples.size();
    return is_taken;
}

// The muxer waits for sound: where it is missing for a while, it gets silence.
static bool fill_sound(AvInput &input, int64_t until) {
    const Silence missing = missing_sound(input.sound, until);
    if (!input.has_sound || missing.length == 0) {
        return true;
    }
    const auto samples = static_cast<size_t>(missing.length / 1000 * audio_rate / 1000000);
    const std::vector<uint8_t> silence(samples * 2);
    input.sound = missing.begin;
    return push_sound(input, silence);
}

bool add_picture(AvInput &input, const Piece &picture, int64_t now) {
    // Each picture is later than the one before.
    constexpr int64_t least = nanoseconds_per_millisecond;
    input.last = std::max(now - input.begin, input.last < 0 ? 0 : input.last + least);
    ++input.pictures;
    input.bytes += picture.size;
    input.picture_bytes += picture.size;
    return push_data(*input.pipeline, "video", {picture.data, picture.size}, input.last) &&
           fill_sound(input, input.last);
}

bool add_sound(AvInput &input, std::span<const uint8_t> samples, int64_t now) {
    if (!input.has_sound || now < input.begin ||
        is_too_much_sound(input.sound, now - input.begin)) {
        return true;
    }
    return fill_sound(input, now - input.begin - sound_length(samples.size())) &&
           push_sound(input, samples);
}

void end_av_input(AvInput &input) {
    end_input(*input.pipeline, "video");
    if (input.has_sound) {
        end_input(*input.pipeline, "sound");
    }
}
