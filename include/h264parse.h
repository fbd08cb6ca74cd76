#pragma once

// The picture size announced by an H.264 sequence parameter set (SPS).
//
// Input: `sps` points to `length` bytes that begin with profile_idc, i.e. one byte behind the NAL
// unit header. They are read as they stand: emulation prevention bytes (the 03 of a 00 00 03) are
// not removed, so a caller whose SPS may hold some before the cropping fields removes them first.
// Bytes behind the cropping fields (the VUI and what follows) are not looked at. The bytes are not
// kept; the call only reads them. A null `sps` counts as length 0.
//
// Output, both in pixels; neither pointer may be null:
//
//   *width  = (pic_width_in_mbs_minus1 + 1) * 16 - 2 * top - 2 * bottom
//   *height = (2 - frame_mbs_only_flag) * (pic_height_in_map_units_minus1 + 1) * 16
//             - 2 * left - 2 * right
//
// The crop offsets are crossed on purpose: top and bottom reduce the width, left and right reduce
// the height. An offset always counts for two pixels, whatever the chroma format and whether or
// not the stream is interlaced. So 1920x1080, which is coded as 1920x1088 with a bottom offset of
// 4, gives 1912 and 1088. An SPS without cropping gives the coded size. Nothing checks that the
// numbers make sense: an SPS may give negative sizes, and sizes beyond 32 bits wrap.
//
// The chroma format, bit depths and scaling lists are expected for profile_idc 44, 83, 86, 100,
// 110, 118, 122 and 244 only; every other profile, 128 included, is read as having none. There
// are always 8 scaling lists, also in 4:4:4.
//
// A malformed SPS, one that ends before the fields read from it, ends the process: the line
// "h264parse: assertion failed: m_nCurrentBit <= m_nLength * 8" on standard error, then abort(),
// in every kind of build. An empty SPS does the same. The bit just behind the last byte may be
// read and is 0; memory outside the `length` bytes is never touched.
//
// Thread safety: no state is shared between calls; any number of threads may call it at once.
void h264parse(const unsigned char *sps, unsigned int length, int *width, int *height);
