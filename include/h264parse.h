#pragma once

// Reads the picture size from an H.264 sequence parameter set (SPS).
// Stands on: nothing else of ours.

// Input: `sps` points to `length` bytes that begin with profile_idc, the byte after the NAL unit
// header. Emulation prevention bytes (the 03 of a 00 00 03) are not removed: if the SPS may hold
// some before the cropping fields, the caller must remove them first. Bytes after the cropping
// fields (the VUI and what follows) are ignored. The bytes are only read during the call, not kept.
// A null `sps` is treated as length 0.
//
// Output, both in pixels; neither pointer may be null:
//
//   *width  = (pic_width_in_mbs_minus1 + 1) * 16 - 2 * top - 2 * bottom
//   *height = (2 - frame_mbs_only_flag) * (pic_height_in_map_units_minus1 + 1) * 16
//             - 2 * left - 2 * right
//
// The crop offsets are crossed on purpose: top and bottom reduce the width, left and right reduce
// the height. An offset always counts for two pixels, whatever the chroma format and whether or not
// the stream is interlaced. So 1920x1080, which is coded as 1920x1088 with a bottom offset of 4,
// gives 1912 and 1088. An SPS without cropping gives the coded size. The numbers are not checked:
// an SPS may give negative sizes, and sizes beyond 32 bits wrap.
//
// The chroma format, bit depths and scaling lists are expected for profile_idc 44, 83, 86, 100,
// 110, 118, 122 and 244 only; all other profiles, including 128, are read without them. There are
// always 8 scaling lists, even in 4:4:4.
//
// A malformed SPS, one that ends before the fields read from it, ends the process in every kind of
// build: with the line "h264parse: assertion failed: m_nCurrentBit <= m_nLength * 8" on standard
// error and abort(). An empty SPS does the same. The bit just after the last byte may be read and
// is 0; memory outside the `length` bytes is never accessed.
//
// Thread safety: calls share no state; any number of threads may call it at once.
void h264parse(const unsigned char *sps, unsigned int length, int *width, int *height);
