#include "beacon_web/parameter_set.h"

#include <algorithm>
#include <cstdio>
#include <utility>

constexpr unsigned largest_side = 8192;
constexpr size_t longest_unit_head = 1024;  // bytes; more is not read
constexpr unsigned most_sequence_sets = 31; // of those in a movie's header
constexpr unsigned most_picture_sets = 255;

namespace {

// Reads bits; past the end there are zeros, and `is_past_end` is set.
struct Bits {
    std::string bytes;
    size_t at = 0; // in bits
    bool is_past_end = false;
};

} // namespace

// The unit's content without its first byte and without the bytes that keep start codes out of it.
static Bits bits_of(ByteSpan unit) {
    Bits bits;
    int zeros = 0;
    for (const uint8_t byte : unit.subspan(1, std::min(unit.size() - 1, longest_unit_head))) {
        if (zeros == 2 && byte == 3) {
            zeros = 0;
            continue;
        }
        zeros = byte == 0 ? zeros + 1 : 0;
        bits.bytes.push_back(static_cast<char>(byte));
    }
    return bits;
}

static unsigned read_bits(Bits &bits, unsigned count) {
    unsigned value = 0;
    for (unsigned i = 0; i < count; ++i, ++bits.at) {
        unsigned bit = 0;
        if (bits.at / 8 < bits.bytes.size()) {
            const auto byte = static_cast<unsigned char>(bits.bytes[bits.at / 8]);
            bit = (byte >> (7 - bits.at % 8)) & 1U;
        } else {
            bits.is_past_end = true;
        }
        value = (value << 1U) | bit;
    }
    return value;
}

// An unsigned number in Exp-Golomb code.
static unsigned read_number(Bits &bits) {
    unsigned zeros = 0;
    while (zeros < 31 && !bits.is_past_end && read_bits(bits, 1) == 0) {
        ++zeros;
    }
    return (1U << zeros) - 1 + read_bits(bits, zeros);
}

static int read_signed(Bits &bits) {
    const unsigned number = read_number(bits);
    const int half = static_cast<int>((number + 1) / 2);
    return number % 2 == 0 ? -half : half;
}

static void skip_scaling_list(Bits &bits, int size) {
    int last = 8;
    for (int i = 0; i < size && last != 0 && !bits.is_past_end; ++i) {
        last = (last + read_signed(bits)) & 0xFF;
    }
}

// The fields that only the larger profiles have. Returns the kind of colour sampling.
static unsigned read_high_fields(Bits &bits, SequenceSet &set) {
    const unsigned sampling = read_number(bits);
    if (sampling == 3) {
        set.has_colour_planes = read_bits(bits, 1) != 0;
    }
    read_number(bits); // depth of brightness
    read_number(bits); // depth of colour
    read_bits(bits, 1);
    if (read_bits(bits, 1) != 0) {
        const int lists = sampling == 3 ? 12 : 8;
        for (int i = 0; i < lists; ++i) {
            if (read_bits(bits, 1) != 0) {
                skip_scaling_list(bits, i < 6 ? 16 : 64);
            }
        }
    }
    return sampling;
}

static bool is_high_profile(unsigned profile) {
    for (const unsigned high :
         {100U, 110U, 122U, 244U, 44U, 83U, 86U, 118U, 128U, 138U, 139U, 134U, 135U}) {
        if (profile == high) {
            return true;
        }
    }
    return false;
}

static void skip_order_fields(Bits &bits) {
    const unsigned kind = read_number(bits);
    if (kind == 0) {
        read_number(bits);
    } else if (kind == 1) {
        read_bits(bits, 1);
        read_signed(bits);
        read_signed(bits);
        const unsigned count = read_number(bits);
        for (unsigned i = 0; i < count && !bits.is_past_end; ++i) {
            read_signed(bits);
        }
    }
}

static void read_size(Bits &bits, unsigned sampling, SequenceSet &set) {
    const uint64_t columns = read_number(bits) + 1ULL;
    const uint64_t rows = read_number(bits) + 1ULL;
    const bool is_frame_only = read_bits(bits, 1) != 0;
    if (!is_frame_only) {
        read_bits(bits, 1);
    }
    read_bits(bits, 1);
    uint64_t width = columns * 16;
    uint64_t height = rows * 16 * (is_frame_only ? 1 : 2);
    if (read_bits(bits, 1) != 0) { // cropped
        const uint64_t step_x = sampling == 1 || sampling == 2 ? 2 : 1;
        const uint64_t step_y = (sampling == 1 ? 2ULL : 1ULL) * (is_frame_only ? 1 : 2);
        uint64_t edges[4];
        for (uint64_t &edge : edges) {
            edge = read_number(bits);
        }
        width -= std::min(width, (edges[0] + edges[1]) * step_x);
        height -= std::min(height, (edges[2] + edges[3]) * step_y);
    }
    const bool is_sane = width <= largest_side && height <= largest_side;
    set.width = is_sane ? static_cast<unsigned>(width) : 0;
    set.height = is_sane ? static_cast<unsigned>(height) : 0;
}

std::optional<SequenceSet> parse_sequence_set(ByteSpan unit) {
    if (unit.size() < 4 || nal_type(unit) != nal_sequence_set) {
        return std::nullopt;
    }
    Bits bits = bits_of(unit);
    SequenceSet set;
    set.profile = read_bits(bits, 8);
    set.constraints = read_bits(bits, 8);
    set.level = read_bits(bits, 8);
    read_number(bits);
    const unsigned sampling = is_high_profile(set.profile) ? read_high_fields(bits, set) : 1;
    set.frame_number_bits = read_number(bits) + 4;
    skip_order_fields(bits);
    read_number(bits); // reference frames
    read_bits(bits, 1);
    read_size(bits, sampling, set);
    if (bits.is_past_end || set.width == 0 || set.height == 0 || set.frame_number_bits > 16) {
        return std::nullopt;
    }
    return set;
}

// The beginning of a slice, from the number of its picture parameter set on.
static Bits slice_head(ByteSpan slice) {
    Bits bits = bits_of(slice.first(std::min<size_t>(slice.size(), 64)));
    read_number(bits); // first macroblock
    read_number(bits); // kind of slice
    return bits;
}

// A set's own number; nothing when it is cut off.
static std::optional<unsigned> number_of(ByteSpan unit) {
    Bits bits = bits_of(unit);
    if (nal_type(unit) == nal_sequence_set) {
        read_bits(bits, 24); // profile, flags, level
    }
    const unsigned number = read_number(bits);
    return bits.is_past_end ? std::nullopt : std::optional(number);
}

bool keep_set(ParameterSets &sets, ByteSpan unit) {
    const bool is_sequence = nal_type(unit) == nal_sequence_set;
    if ((!is_sequence && nal_type(unit) != nal_picture_set) || unit.size() > longest_unit_head) {
        return false;
    }
    const auto number = number_of(unit);
    if (!number || *number >= (is_sequence ? most_sequence_sets : most_picture_sets)) {
        return false;
    }
    std::string &known = (is_sequence ? sets.sequence : sets.picture)[*number];
    std::string text{reinterpret_cast<const char *>(unit.data()), unit.size()};
    const bool is_new = known != text;
    known = std::move(text);
    return is_new;
}

static ByteSpan bytes_of(const std::string &text) {
    return {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
}

// Empty when there is no set with that number.
static ByteSpan find_set(const std::map<unsigned, std::string> &sets, unsigned number) {
    const auto found = sets.find(number);
    return found == sets.end() ? ByteSpan{} : bytes_of(found->second);
}

std::optional<SequenceSet> sequence_set_of(const ParameterSets &sets, ByteSpan slice) {
    Bits head = slice_head(slice);
    const ByteSpan picture_set = find_set(sets.picture, read_number(head));
    if (head.is_past_end || picture_set.empty()) {
        return std::nullopt;
    }
    Bits bits = bits_of(picture_set);
    read_number(bits); // its own number
    const ByteSpan sequence_set = find_set(sets.sequence, read_number(bits));
    return bits.is_past_end || sequence_set.empty() ? std::nullopt
                                                    : parse_sequence_set(sequence_set);
}

std::string codec_name(const SequenceSet &set) {
    char name[40];
    snprintf(name, sizeof name, "avc1.%02X%02X%02X", set.profile, set.constraints, set.level);
    return name;
}

std::optional<unsigned> frame_number(ByteSpan slice, const SequenceSet &set) {
    Bits bits = slice_head(slice);
    read_number(bits); // picture parameter set
    if (set.has_colour_planes) {
        read_bits(bits, 2);
    }
    const unsigned number = read_bits(bits, set.frame_number_bits);
    return bits.is_past_end ? std::nullopt : std::optional(number);
}
