#include "beacon_media/audio_source.h"

#include "beacon_media/engine.h"
#include "beacon_media/exchange.h"
#include "beacon_media/role.h"
#include "source/clocks.h"
#include "source/complain.h"

#include <algorithm>

constexpr int idle_ms = 200;
constexpr int64_t turn = 20 * nanoseconds_per_millisecond;
constexpr int64_t shortest_pause = nanoseconds_per_second;
constexpr int64_t longest_pause = 8 * nanoseconds_per_second;

struct AudioSource {
    Role role;
    Exchange exchange; // only its sound
    Pipeline *pipeline = nullptr;
    int64_t due = 0;
    int64_t pause = shortest_pause;
};

// "0.05" for 5: the language of pipelines has no percentages.
static std::string percent_text(int percent) {
    const std::string digits = std::to_string(percent % 100);
    return std::to_string(percent / 100) + "." + (digits.size() < 2 ? "0" : "") + digits;
}

// `audio_volume` is a percentage; 0 is a board on which nobody has set it.
static std::string words_of(const BoardSettings &settings) {
    constexpr int most = 1000;
    const int percent = settings.audio_volume <= 0 ? 100 : std::min(settings.audio_volume, most);
    std::string words = "alsasrc name=input ! audioconvert ! audioresample";
    if (settings.audio_autogain != 0) {
        // With floating point and two channels, GStreamer 1.22 makes it as loud as it can be.
        words += " ! audio/x-raw,format=S16LE ! audiodynamic characteristics=soft-knee"
                 " mode=compressor threshold=0.2 ratio=0.3 ! audioconvert";
    }
    return words + " ! volume name=volume volume=" + percent_text(percent) +
           " ! audioconvert ! audioresample ! audio/x-raw,format=S16LE,channels=1,rate=16000"
           " ! appsink name=sound sync=false max-buffers=200 drop=true";
}

static void fail(AudioSource &source, const std::string &reason, int64_t now) {
    complain_once(source.role, "no sound: " + reason + ", trying again");
    stop_pipeline(source.pipeline);
    source.pipeline = nullptr;
    source.due = now + source.pause;
    source.pause = std::min(2 * source.pause, longest_pause);
}

static void start(AudioSource &source, int64_t now) {
    std::string reason;
    if (now < source.due || !init_engine()) {
        return;
    }
    source.pipeline =
        start_pipeline({words_of(source.role.settings), "device", "default"}, "sound", -1, reason);
    if (source.pipeline == nullptr) {
        fail(source, reason, now);
    }
}

static void run(AudioSource &source) {
    const int64_t now = monotonic_ns();
    if (source.pipeline == nullptr) {
        start(source, now);
        return;
    }
    Piece piece;
    // One at a time: with a device that is never late, the next one is always there in time.
    if (next_piece(*source.pipeline, turn, piece)) {
        send_sound(source.exchange, piece.data, piece.size);
        source.pause = shortest_pause;
        forget_complaint(source.role);
    }
    std::string reason;
    if (check_pipeline(*source.pipeline, reason) != PipelineState::running) {
        fail(source, reason.empty() ? "it ended" : reason, now);
    }
}

int run_audio_source() {
    AudioSource source;
    if (!open_role(source.role) || !open_sound(source.exchange)) {
        return 1;
    }
    // A change of the settings ends this process.
    const bool is_on = source.role.settings.audio_enabled != 0;
    while (role_goes_on(source.role, is_on && source.pipeline != nullptr ? 0 : idle_ms)) {
        if (is_on) {
            run(source);
        }
    }
    stop_pipeline(source.pipeline);
    return 0;
}
