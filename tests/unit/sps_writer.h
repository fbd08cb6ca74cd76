#pragma once

// Sequence parameter sets, field by field, for the tests of their parser.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

struct BitWriter {
    std::vector<unsigned char> bytes; // the last one is padded with zeros
    size_t bits = 0;
};

void put_bits(BitWriter &writer, uint64_t value, int count);

// Exponential-Golomb codes, unsigned and signed.
void put_ue(BitWriter &writer, uint64_t value);
void put_se(BitWriter &writer, int64_t value);

struct Crop {
    uint64_t left, right, top, bottom;
};

using ScalingList = std::vector<int64_t>; // the deltas as written; absent when empty

struct Sps {
    unsigned int profile_idc = 66;
    uint64_t seq_parameter_set_id = 0;
    bool has_chroma_fields = false;
    uint64_t chroma_format_idc = 1;
    unsigned int separate_colour_plane_flag = 0; // written with chroma_format_idc 3
    uint64_t bit_depth_luma_minus8 = 0;
    uint64_t bit_depth_chroma_minus8 = 0;
    unsigned int transform_bypass_flag = 0;
    std::vector<ScalingList> scaling_lists; // 8, or none: no scaling matrix
    uint64_t log2_max_frame_num_minus4 = 0;
    uint64_t pic_order_cnt_type = 2;
    uint64_t log2_max_pic_order_cnt_lsb_minus4 = 4;  // type 0
    int64_t offset_for_non_ref_pic = -3;             // type 1
    int64_t offset_for_top_to_bottom_field = 7;      // type 1
    std::vector<int64_t> offsets_for_ref_frame = {}; // type 1
    uint64_t max_num_ref_frames = 4;
    unsigned int gaps_allowed_flag = 0;
    uint64_t pic_width_in_mbs_minus1 = 79;
    uint64_t pic_height_in_map_units_minus1 = 44;
    unsigned int frame_mbs_only_flag = 1;
    unsigned int mb_adaptive_flag = 1;
    unsigned int direct_8x8_inference_flag = 1;
    std::optional<Crop> crop;
};

BitWriter write_sps(const Sps &sps);

// Of profile 100, which has the chroma fields.
Sps high_sps();

// Six lists of 16 deltas and two of 64.
std::vector<ScalingList> eight_lists(int64_t delta);
