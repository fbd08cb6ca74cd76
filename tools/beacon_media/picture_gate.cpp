#include "beacon_media/picture_gate.h"

#include <string_view>

Verdict judge_picture(PictureGate &gate, size_t size, bool is_key, size_t most, bool has_room) {
    if (size > most) {
        ++gate.too_long;
        gate.waits_for_key = true;
        return Verdict::too_long;
    }
    if (gate.waits_for_key && !is_key) {
        ++gate.no_key;
        return Verdict::no_key;
    }
    if (!has_room) {
        ++gate.no_room;
        gate.waits_for_key = true;
        return Verdict::no_room;
    }
    gate.waits_for_key = false;
    ++gate.passed;
    gate.bytes += size;
    return Verdict::publish;
}

bool begins_stream(std::span<const uint8_t> piece) {
    constexpr std::string_view start_code{"\0\0\1", 3};
    constexpr unsigned slice = 1;
    constexpr unsigned key_slice = 5;
    constexpr unsigned parameter_set = 7;
    const std::string_view stream(reinterpret_cast<const char *>(piece.data()), piece.size());
    for (size_t at = stream.find(start_code); at != std::string_view::npos;
         at = stream.find(start_code, at + 1)) {
        const size_t type_at = at + start_code.size();
        const unsigned type = type_at < piece.size() ? piece[type_at] & 0x1FU : 0;
        if (type >= slice && type < key_slice) {
            return false;
        }
        if (type == key_slice || type == parameter_set) {
            return true;
        }
    }
    return false;
}

uint64_t dropped_pictures(const PictureGate &gate) {
    return gate.too_long + gate.no_room + gate.no_key;
}
