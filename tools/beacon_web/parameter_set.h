#pragma once

// Reads what a stream's sequence parameter set and its slices say about the pictures.
// Stands on: beacon_web/nal_units.

#include "beacon_web/nal_units.h"

#include <map>
#include <optional>
#include <string>

struct SequenceSet {
    unsigned profile = 0;
    unsigned constraints = 0; // the byte of flags between profile and level
    unsigned level = 0;
    unsigned width = 0; // pixels, of the part of the picture that is shown
    unsigned height = 0;
    unsigned frame_number_bits = 4;
    bool has_colour_planes = false; // coded apart, each slice says which one it is of

    bool operator==(const SequenceSet &) const = default;
};

// The units that hold a stream's parameter sets, by their numbers.
struct ParameterSets {
    std::map<unsigned, std::string> sequence;
    std::map<unsigned, std::string> picture;
};

// Keeps a unit that is a parameter set, in place of one with its number. Returns whether that
// changes the sets. A set that is cut off or longer than any real one is left out.
bool keep_set(ParameterSets &sets, ByteSpan unit);

// The sequence parameter set that a slice's picture parameter set refers to. Nothing when one of
// them has not come or cannot be read.
std::optional<SequenceSet> sequence_set_of(const ParameterSets &sets, ByteSpan slice);

// Nothing when the unit is no sequence parameter set, is cut off, or tells a size that no camera
// has.
std::optional<SequenceSet> parse_sequence_set(ByteSpan unit);

// What browsers call the stream: "avc1.64001F".
std::string codec_name(const SequenceSet &set);

// A slice's frame number. Reference pictures count it up by one, modulo 2^frame_number_bits.
// Nothing when the slice is cut off.
std::optional<unsigned> frame_number(ByteSpan slice, const SequenceSet &set);
