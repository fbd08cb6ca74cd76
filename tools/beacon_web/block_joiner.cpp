#include "beacon_web/block_joiner.h"

#include "net/relay_packet.h"

#include <utility>

constexpr size_t largest_held = 2 << 20; // the daemon's frames have at most 300000 bytes

static ByteSpan bytes_of(const std::string &text) {
    return {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
}

static void note_gap(BlockJoiner &joiner, ByteSpan block) {
    const bool begins_unit = begins_with_start_code(block);
    joiner.has_gap = true;
    if (!joiner.held.empty() || !begins_unit) {
        joiner.has_certain_gap = true;
        joiner.held.clear();
        joiner.is_skipping = !begins_unit;
    }
}

// Does a new picture begin with this unit, if the units before it had a slice?
static bool begins_picture(ByteSpan unit) {
    const uint8_t type = nal_type(unit);
    return is_first_slice(unit) || (type >= nal_sei && type <= nal_delimiter) ||
           (type >= 14 && type <= 18);
}

// Where each picture begins in a stream of whole units. The last one may lack a slice.
static std::vector<size_t> picture_starts(ByteSpan stream, bool &last_has_slice) {
    std::vector<size_t> starts{0};
    last_has_slice = false;
    for (const ByteSpan unit : split_units(stream)) {
        if (last_has_slice && begins_picture(unit)) {
            starts.push_back(static_cast<size_t>(unit.data() - stream.data()) - 3);
            last_has_slice = false;
        }
        last_has_slice = last_has_slice || is_slice(unit);
    }
    return starts;
}

static std::vector<CodedPicture> end_frame(BlockJoiner &joiner) {
    bool last_has_slice = false;
    std::vector<size_t> starts = picture_starts(bytes_of(joiner.held), last_has_slice);
    starts.push_back(joiner.held.size());
    std::vector<CodedPicture> pictures;
    // Parameter sets that were sent in a frame of their own go with the next picture.
    const size_t count = starts.size() - (last_has_slice ? 1 : 2);
    for (size_t i = 0; i < count; ++i) {
        pictures.push_back({joiner.held.substr(starts[i], starts[i + 1] - starts[i]),
                            std::exchange(joiner.has_gap, false),
                            std::exchange(joiner.has_certain_gap, false)});
    }
    joiner.held.erase(0, starts[count]);
    return pictures;
}

std::vector<CodedPicture> join_block(BlockJoiner &joiner, ByteSpan block, bool is_after_gap) {
    if (is_after_gap) {
        note_gap(joiner, block);
    }
    if (joiner.is_skipping && !begins_with_start_code(block)) {
        return {};
    }
    joiner.is_skipping = false;
    joiner.held.append(reinterpret_cast<const char *>(block.data()), block.size());
    if (joiner.held.size() > largest_held) {
        joiner = {};
        return {};
    }
    return block.size() < relay_video_block_size ? end_frame(joiner) : std::vector<CodedPicture>{};
}
