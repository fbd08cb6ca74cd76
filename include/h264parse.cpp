#include "h264parse.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

struct BitReader {
    const unsigned char *m_pStart;
    uint64_t m_nLength;     // in bytes; 64 bits so that the length in bits never wraps
    uint64_t m_nCurrentBit; // the next bit to read, from 0
};

} // namespace

// The input comes from another process, so this check stays in builds that drop assert().
[[noreturn]] static void fail_past_end() {
    std::fputs("h264parse: assertion failed: m_nCurrentBit <= m_nLength * 8\n", stderr);
    std::abort();
}

static unsigned int ReadBit(BitReader &reader) {
    const uint64_t end = reader.m_nLength * 8;
    if (reader.m_nCurrentBit > end) {
        fail_past_end();
    }
    // The check allows the position just after the data, which has no byte.
    unsigned int bit = 0;
    if (reader.m_nCurrentBit < end) {
        const unsigned int byte = reader.m_pStart[reader.m_nCurrentBit / 8];
        bit = (byte >> (7 - reader.m_nCurrentBit % 8)) & 1U;
    }
    ++reader.m_nCurrentBit;
    return bit;
}

// `count` is at most 32.
static uint32_t ReadBits(BitReader &reader, unsigned int count) {
    uint32_t bits = 0;
    for (unsigned int i = 0; i < count; ++i) {
        bits = (bits << 1) | ReadBit(reader);
    }
    return bits;
}

// Reads up to the bit that ends the zeros, or the bit after the 32nd zero, and then the suffix.
// With 32 zeros the value needs 33 bits.
static uint64_t ReadExponentialGolomb(BitReader &reader) {
    unsigned int zeros = 0;
    while (ReadBit(reader) == 0 && zeros < 32) {
        ++zeros;
    }
    return (uint64_t{1} << zeros) - 1 + ReadBits(reader, zeros);
}

static int64_t ReadSE(BitReader &reader) {
    const auto value = static_cast<int64_t>(ReadExponentialGolomb(reader));
    return value % 2 != 0 ? (value + 1) / 2 : -(value / 2);
}

// Does the SPS of this profile have the chroma format, bit depths and scaling lists?
static bool has_chroma_fields(unsigned int profile_idc) {
    switch (profile_idc) {
    case 44:
    case 83:
    case 86:
    case 100:
    case 110:
    case 118:
    case 122:
    case 244:
        return true;
    default:
        return false;
    }
}

static void skip_scaling_list(BitReader &reader, int size) {
    int64_t last_scale = 8;
    int64_t next_scale = 8;
    for (int i = 0; i < size && next_scale != 0; ++i) {
        // A delta has at most 33 bits, so the sum is exact. It is taken modulo 256, also when it is
        // negative (-1 is 255).
        const int64_t sum = last_scale + ReadSE(reader) + 256;
        next_scale = (sum % 256 + 256) % 256;
        if (next_scale != 0) {
            last_scale = next_scale;
        }
    }
}

static void skip_chroma_fields(BitReader &reader) {
    const uint64_t chroma_format_idc = ReadExponentialGolomb(reader);
    if (chroma_format_idc == 3) {
        ReadBit(reader); // separate_colour_plane_flag
    }
    ReadExponentialGolomb(reader); // bit_depth_luma_minus8
    ReadExponentialGolomb(reader); // bit_depth_chroma_minus8
    ReadBit(reader);               // qpprime_y_zero_transform_bypass_flag
    if (ReadBit(reader) == 0) {    // seq_scaling_matrix_present_flag
        return;
    }
    for (int list = 0; list < 8; ++list) {
        if (ReadBit(reader) != 0) { // seq_scaling_list_present_flag
            skip_scaling_list(reader, list < 6 ? 16 : 64);
        }
    }
}

static void skip_picture_order_fields(BitReader &reader) {
    const uint64_t pic_order_cnt_type = ReadExponentialGolomb(reader);
    if (pic_order_cnt_type == 0) {
        ReadExponentialGolomb(reader); // log2_max_pic_order_cnt_lsb_minus4
    } else if (pic_order_cnt_type == 1) {
        ReadBit(reader); // delta_pic_order_always_zero_flag
        ReadSE(reader);  // offset_for_non_ref_pic
        ReadSE(reader);  // offset_for_top_to_bottom_field
        // A count that is too large is harmless: the reads run into the end of the data.
        const uint64_t num_ref_frames_in_pic_order_cnt_cycle = ReadExponentialGolomb(reader);
        for (uint64_t i = 0; i < num_ref_frames_in_pic_order_cnt_cycle; ++i) {
            ReadSE(reader); // offset_for_ref_frame
        }
    }
}

void h264parse(const unsigned char *sps, unsigned int length, int *width, int *height) {
    BitReader reader = {
        .m_pStart = sps,
        .m_nLength = sps != nullptr ? length : 0,
        .m_nCurrentBit = 0,
    };

    const uint32_t profile_idc = ReadBits(reader, 24) >> 16; // constraint flags, level_idc
    ReadExponentialGolomb(reader);                           // seq_parameter_set_id
    if (has_chroma_fields(profile_idc)) {
        skip_chroma_fields(reader);
    }
    ReadExponentialGolomb(reader); // log2_max_frame_num_minus4
    skip_picture_order_fields(reader);
    ReadExponentialGolomb(reader); // max_num_ref_frames
    ReadBit(reader);               // gaps_in_frame_num_value_allowed_flag
    const auto width_in_mbs = static_cast<int64_t>(ReadExponentialGolomb(reader)) + 1;
    const auto height_in_map_units = static_cast<int64_t>(ReadExponentialGolomb(reader)) + 1;
    const unsigned int frame_mbs_only_flag = ReadBit(reader);
    if (frame_mbs_only_flag == 0) {
        ReadBit(reader); // mb_adaptive_frame_field_flag
    }
    ReadBit(reader); // direct_8x8_inference_flag

    int64_t left = 0;
    int64_t right = 0;
    int64_t top = 0;
    int64_t bottom = 0;
    if (ReadBit(reader) != 0) { // frame_cropping_flag
        left = static_cast<int64_t>(ReadExponentialGolomb(reader));
        right = static_cast<int64_t>(ReadExponentialGolomb(reader));
        top = static_cast<int64_t>(ReadExponentialGolomb(reader));
        bottom = static_cast<int64_t>(ReadExponentialGolomb(reader));
    }

    // No term has more than 38 bits; the conversions to int keep the low 32.
    const int64_t fields = frame_mbs_only_flag != 0 ? 1 : 2;
    *width = static_cast<int>(width_in_mbs * 16 - 2 * bottom - 2 * top);
    *height = static_cast<int>(fields * height_in_map_units * 16 - 2 * right - 2 * left);
}
