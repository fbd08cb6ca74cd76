#include "sps_writer.h"

#include <bit>

void put_bits(BitWriter &writer, uint64_t value, int count) {
    for (int i = count - 1; i >= 0; --i) {
        if (writer.bits % 8 == 0) {
            writer.bytes.push_back(0);
        }
        if (((value >> i) & 1U) != 0) {
            writer.bytes.back() =
                static_cast<unsigned char>(writer.bytes.back() | (0x80U >> (writer.bits % 8)));
        }
        ++writer.bits;
    }
}

// The value plus one in binary, preceded by one zero fewer than it has digits.
void put_ue(BitWriter &writer, uint64_t value) {
    const int digits = static_cast<int>(std::bit_width(value + 1));
    put_bits(writer, 0, digits - 1);
    put_bits(writer, value + 1, digits);
}

// 0, 1, -1, 2, -2, ... are the unsigned codes 0, 1, 2, 3, 4, ...
void put_se(BitWriter &writer, int64_t value) {
    const uint64_t doubled = static_cast<uint64_t>(value > 0 ? value : -value) * 2;
    put_ue(writer, value > 0 ? doubled - 1 : doubled);
}

BitWriter write_sps(const Sps &sps) {
    BitWriter writer;
    put_bits(writer, sps.profile_idc, 8);
    put_bits(writer, 0xC0, 8); // constraint flags
    put_bits(writer, 31, 8);   // level_idc
    put_ue(writer, sps.seq_parameter_set_id);
    if (sps.has_chroma_fields) {
        put_ue(writer, sps.chroma_format_idc);
        if (sps.chroma_format_idc == 3) {
            put_bits(writer, sps.separate_colour_plane_flag, 1);
        }
        put_ue(writer, sps.bit_depth_luma_minus8);
        put_ue(writer, sps.bit_depth_chroma_minus8);
        put_bits(writer, sps.transform_bypass_flag, 1);
        put_bits(writer, sps.scaling_lists.empty() ? 0 : 1, 1);
        for (const ScalingList &list : sps.scaling_lists) {
            put_bits(writer, list.empty() ? 0 : 1, 1);
            for (const int64_t delta : list) {
                put_se(writer, delta);
            }
        }
    }
    put_ue(writer, sps.log2_max_frame_num_minus4);
    put_ue(writer, sps.pic_order_cnt_type);
    if (sps.pic_order_cnt_type == 0) {
        put_ue(writer, sps.log2_max_pic_order_cnt_lsb_minus4);
    } else if (sps.pic_order_cnt_type == 1) {
        put_bits(writer, 1, 1);
        put_se(writer, sps.offset_for_non_ref_pic);
        put_se(writer, sps.offset_for_top_to_bottom_field);
        put_ue(writer, sps.offsets_for_ref_frame.size());
        for (const int64_t offset : sps.offsets_for_ref_frame) {
            put_se(writer, offset);
        }
    }
    put_ue(writer, sps.max_num_ref_frames);
    put_bits(writer, sps.gaps_allowed_flag, 1);
    put_ue(writer, sps.pic_width_in_mbs_minus1);
    put_ue(writer, sps.pic_height_in_map_units_minus1);
    put_bits(writer, sps.frame_mbs_only_flag, 1);
    if (sps.frame_mbs_only_flag == 0) {
        put_bits(writer, sps.mb_adaptive_flag, 1);
    }
    put_bits(writer, sps.direct_8x8_inference_flag, 1);
    put_bits(writer, sps.crop.has_value() ? 1 : 0, 1);
    if (sps.crop.has_value()) {
        put_ue(writer, sps.crop->left);
        put_ue(writer, sps.crop->right);
        put_ue(writer, sps.crop->top);
        put_ue(writer, sps.crop->bottom);
    }
    return writer;
}

Sps high_sps() {
    Sps sps;
    sps.profile_idc = 100;
    sps.has_chroma_fields = true;
    return sps;
}

std::vector<ScalingList> eight_lists(int64_t delta) {
    std::vector<ScalingList> lists(6, ScalingList(16, delta));
    lists.resize(8, ScalingList(64, delta));
    return lists;
}
