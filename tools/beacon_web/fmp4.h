#pragma once

// Writes fragmented MP4 for one H.264 track.
// Stands on: beacon_web/parameter_set.

#include "beacon_web/parameter_set.h"

#include <span>
#include <string>

// Times are in units of 1/movie_timescale seconds. ISO/IEC 14496-12 and -15 have the layouts.
constexpr uint32_t movie_timescale = 90000;

// What a player gets first. The duration is left unknown: browsers then play without a buffer.
// `set` is the sequence parameter set in use.
std::string movie_header(const ParameterSets &sets, const SequenceSet &set);

// One picture as one fragment, with its times still to be stamped. Parameter sets, delimiters and
// filler are left out.
std::string movie_fragment(std::span<const ByteSpan> units, bool is_key);

// Where the times are in each fragment.
constexpr size_t fragment_sequence_at = 20; // u32
constexpr size_t fragment_time_at = 60;     // u64
constexpr size_t fragment_duration_at = 88; // u32
constexpr size_t fragment_head_size = 108;  // what stands before the picture

// Writes them, big-endian, into the copy of a fragment for one player. Sequence numbers begin at 1;
// the times must follow each other without gaps.
void stamp_fragment(uint8_t *fragment, uint32_t sequence, uint64_t time, uint32_t duration);
