#include "beacon_web/fmp4.h"

#include <initializer_list>

static std::string big_endian(uint64_t value, int bytes) {
    std::string text;
    for (int shift = (bytes - 1) * 8; shift >= 0; shift -= 8) {
        text.push_back(static_cast<char>((value >> static_cast<unsigned>(shift)) & 0xFFU));
    }
    return text;
}

static std::string u8(uint64_t value) {
    return big_endian(value, 1);
}

static std::string u16(uint64_t value) {
    return big_endian(value, 2);
}

static std::string u32(uint64_t value) {
    return big_endian(value, 4);
}

static std::string zeros(size_t count) {
    return std::string(count, '\0');
}

static std::string box(const char *type, std::initializer_list<std::string> parts) {
    std::string content;
    for (const std::string &part : parts) {
        content += part;
    }
    return u32(content.size() + 8) + type + content;
}

// A box that begins with a version and flags.
static std::string full_box(const char *type, unsigned version, unsigned flags,
                            std::initializer_list<std::string> parts) {
    std::string content = u32(version << 24U | flags);
    for (const std::string &part : parts) {
        content += part;
    }
    return box(type, {content});
}

static std::string identity_matrix() {
    std::string matrix;
    for (const uint32_t value : {0x10000U, 0U, 0U, 0U, 0x10000U, 0U, 0U, 0U, 0x40000000U}) {
        matrix += u32(value);
    }
    return matrix;
}

// Each with its length.
static std::string list_of(const std::map<unsigned, std::string> &sets) {
    std::string list;
    for (const auto &[number, unit] : sets) {
        list += u16(unit.size()) + unit;
    }
    return list;
}

static std::string sample_description(const ParameterSets &sets, const SequenceSet &set) {
    constexpr uint64_t dots_per_inch = 0x480000; // 72, 16.16
    const std::string configuration =
        box("avcC", {u8(1), u8(set.profile), u8(set.constraints), u8(set.level),
                     u8(0xFF), // lengths have four bytes
                     u8(0xE0 | sets.sequence.size()), list_of(sets.sequence),
                     u8(sets.picture.size()), list_of(sets.picture)});
    const std::string entry =
        box("avc1",
            {zeros(6), u16(1), zeros(16), u16(set.width), u16(set.height), u32(dots_per_inch),
             u32(dots_per_inch), u32(0), u16(1), zeros(32), u16(24), u16(0xFFFF), configuration});
    return full_box("stsd", 0, 0, {u32(1), entry});
}

static std::string media_box(const ParameterSets &sets, const SequenceSet &set) {
    const std::string table =
        box("stbl", {sample_description(sets, set), full_box("stts", 0, 0, {u32(0)}),
                     full_box("stsc", 0, 0, {u32(0)}), full_box("stsz", 0, 0, {u32(0), u32(0)}),
                     full_box("stco", 0, 0, {u32(0)})});
    const std::string references =
        box("dinf", {full_box("dref", 0, 0, {u32(1), full_box("url ", 0, 1, {})})});
    const std::string information =
        box("minf", {full_box("vmhd", 0, 1, {zeros(8)}), references, table});
    constexpr uint64_t no_language = 0x55C4;
    return box(
        "mdia",
        {full_box("mdhd", 0, 0, {zeros(8), u32(movie_timescale), u32(0), u16(no_language), u16(0)}),
         full_box("hdlr", 0, 0, {u32(0), "vide", zeros(12), "video" + zeros(1)}), information});
}

std::string movie_header(const ParameterSets &sets, const SequenceSet &set) {
    const std::string track_header =
        full_box("tkhd", 0, 3,
                 {zeros(8), u32(1), u32(0), u32(0), zeros(16), identity_matrix(),
                  u32(uint64_t{set.width} << 16U), u32(uint64_t{set.height} << 16U)});
    const std::string movie =
        full_box("mvhd", 0, 0,
                 {zeros(8), u32(movie_timescale), u32(0), u32(0x10000), u16(0x100), zeros(10),
                  identity_matrix(), zeros(24), u32(2)});
    const std::string fragments =
        box("mvex", {full_box("trex", 0, 0, {u32(1), u32(1), u32(0), u32(0), u32(0)})});
    return box("ftyp", {"iso5", u32(1), "iso5", "avc1"}) +
           box("moov", {movie, box("trak", {track_header, media_box(sets, set)}), fragments});
}

static bool belongs_in_fragment(ByteSpan unit) {
    const uint8_t type = nal_type(unit);
    return type != nal_sequence_set && type != nal_picture_set && type != nal_delimiter &&
           type != nal_filler;
}

std::string movie_fragment(std::span<const ByteSpan> units, bool is_key) {
    std::string picture;
    for (const ByteSpan unit : units) {
        if (belongs_in_fragment(unit)) {
            picture += u32(unit.size());
            picture.append(reinterpret_cast<const char *>(unit.data()), unit.size());
        }
    }
    constexpr unsigned base_is_moof = 0x020000;
    constexpr unsigned has_offset_duration_size_flags = 0x000701;
    const uint64_t sample_flags = is_key ? 0x02000000 : 0x01010000;
    const std::string run =
        full_box("trun", 0, has_offset_duration_size_flags,
                 {u32(1), u32(fragment_head_size), u32(0), u32(picture.size()), u32(sample_flags)});
    return box("moof", {full_box("mfhd", 0, 0, {u32(0)}),
                        box("traf", {full_box("tfhd", 0, base_is_moof, {u32(1)}),
                                     full_box("tfdt", 1, 0, {zeros(8)}), run})}) +
           box("mdat", {picture});
}

static void put_big_endian(uint8_t *at, uint64_t value, int bytes) {
    for (int i = bytes - 1; i >= 0; --i, value >>= 8U) {
        at[i] = static_cast<uint8_t>(value & 0xFFU);
    }
}

void stamp_fragment(uint8_t *fragment, uint32_t sequence, uint64_t time, uint32_t duration) {
    put_big_endian(fragment + fragment_sequence_at, sequence, 4);
    put_big_endian(fragment + fragment_time_at, time, 8);
    put_big_endian(fragment + fragment_duration_at, duration, 4);
}
