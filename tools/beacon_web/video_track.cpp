#include "beacon_web/video_track.h"

#include <algorithm>
#include <cmath>
#include <utility>

constexpr double longest_interval = 0.5; // seconds; a longer one is a pause
constexpr double interval_weight = 0.05; // of the newest interval in the average

static ByteSpan bytes_of(const std::string &text) {
    return {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
}

// Returns whether players need another start from here on.
static bool take_parameter_sets(VideoTrack &track, const std::vector<ByteSpan> &units,
                                ByteSpan slice) {
    bool has_changed = false;
    for (const ByteSpan unit : units) {
        has_changed = keep_set(track.sets, unit) || has_changed;
    }
    // Only at a key picture can a stream go over to another sequence parameter set.
    if (!has_changed && nal_type(slice) != nal_key_slice) {
        return false;
    }
    const auto set = sequence_set_of(track.sets, slice);
    if (!set) {
        track.start = nullptr;
        return true;
    }
    if (!has_changed && track.start != nullptr && *set == track.set) {
        return false;
    }
    track.set = *set;
    track.start = std::make_shared<const MovieStart>(
        MovieStart{movie_header(track.sets, *set), codec_name(*set), set->width, set->height});
    return true;
}

static ByteSpan first_slice(const std::vector<ByteSpan> &units) {
    const auto found = std::find_if(units.begin(), units.end(), is_slice);
    return found == units.end() ? ByteSpan{} : *found;
}

// Is a reference picture missing between the last one and this slice's?
static bool misses_reference(const VideoTrack &track, ByteSpan slice) {
    const auto number = frame_number(slice, track.set);
    const unsigned mask = (1U << track.set.frame_number_bits) - 1;
    return !number ||
           (*number != track.last_reference && *number != ((track.last_reference + 1) & mask));
}

static void note_reference(VideoTrack &track, ByteSpan slice) {
    const bool is_reference = (slice[0] & 0x60U) != 0;
    if (is_reference) {
        track.last_reference = frame_number(slice, track.set).value_or(0);
    }
}

// Averages the time between pictures that followed each other.
static void note_arrival(VideoTrack &track, bool is_after_loss, TimePoint now) {
    const double passed = seconds_between(std::exchange(track.arrived, now), now);
    if (!is_after_loss && passed < longest_interval) {
        track.interval += (passed - track.interval) * interval_weight;
    }
}

std::optional<Fragment> take_picture(VideoTrack &track, const CodedPicture &picture,
                                     TimePoint now) {
    const std::vector<ByteSpan> units = split_units(bytes_of(picture.stream));
    const ByteSpan slice = first_slice(units);
    if (slice.empty()) {
        return std::nullopt;
    }
    const bool is_key = nal_type(slice) == nal_key_slice;
    const bool is_new_start = take_parameter_sets(track, units, slice);
    const bool is_loss = !is_key && (picture.is_after_loss || is_new_start ||
                                     (picture.is_after_gap && misses_reference(track, slice)));
    note_arrival(track, is_loss, now);
    track.waits_for_key = (track.waits_for_key || is_loss) && !is_key;
    if (track.waits_for_key || track.start == nullptr) {
        ++track.dropped;
        return std::nullopt;
    }
    note_reference(track, slice);
    const double duration = std::max(track.interval, 0.001) * movie_timescale;
    return Fragment{std::make_shared<const std::string>(movie_fragment(units, is_key)), track.start,
                    static_cast<uint32_t>(std::lround(duration)), is_key};
}
