#pragma once

#include "base/pause.h"

#include <cstddef>
#include <cstdint>

// The unit of test traffic: the payload of one relay packet. A small header says which block it is
// and when it was sent; the rest is noise derived from that header, so that a byte that changed,
// moved or came from another block is found.

struct BlockHeader {
    uint16_t marker;   // block_marker: the packet is from the benchmark
    uint16_t run;      // the measurement it belongs to
    uint32_t item;     // datagram or frame, from 0
    uint32_t index;    // block of the frame, from 0
    uint32_t size;     // bytes of the block
    int64_t handed_ns; // monotonic clock when the item was handed to the relay
};

constexpr uint16_t block_marker = 0x5142; // no text or command begins with these bytes
constexpr size_t block_header_size = sizeof(BlockHeader);
constexpr size_t largest_block = 60000;

// Writes everything but handed_ns: `header.size` bytes, block_header_size to largest_block.
void fill_block(uint8_t *at, const BlockHeader &header);
void stamp_block(uint8_t *at, int64_t handed_ns);

// Reads the header of `size` bytes. Returns false when they are not a block.
bool read_block_header(const uint8_t *at, size_t size, BlockHeader &header);
// Is every byte after the header what fill_block wrote?
bool is_intact(const uint8_t *at, size_t size, const BlockHeader &header);
