#pragma once

// Joins the blocks of video packets into pictures.
// Stands on: beacon_web/nal_units, net/relay_packet.

#include "beacon_web/nal_units.h"

#include <string>
#include <vector>

// A block shorter than relay_video_block_size ends a frame of the source. A frame that fills its
// last block looks unfinished; it is told from the next one by its units when that one has ended.
struct BlockJoiner {
    std::string held;            // blocks of a frame that has not ended
    bool is_skipping = true;     // until a block begins with a start code
    bool has_gap = false;        // packets are missing before what is held
    bool has_certain_gap = true; // and they were the video's
};

// One picture as H.264 with start codes.
struct CodedPicture {
    std::string stream;
    bool is_after_gap =
        false; // a packet is missing before it, which may have been another stream's
    bool is_after_loss = false; // a piece of video is missing before it
};

// Takes a block and returns the pictures that it ends, mostly none or one. `is_after_gap`: the
// packets' numbers have a gap before this one.
std::vector<CodedPicture> join_block(BlockJoiner &joiner, ByteSpan block, bool is_after_gap);
