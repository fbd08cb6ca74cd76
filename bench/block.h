#pragma once

#include <cstddef>
#include <cstdint>

// The unit of test traffic: what one relay packet carries as its payload. A small header tells
// which block it is and when it was handed over; the rest is noise that depends on all of that,
// so that a byte that changed, moved or belongs to another block is found.

struct BlockHeader {
    uint16_t marker;   // block_marker: the packet is the bench's
    uint16_t run;      // which measurement it belongs to
    uint32_t item;     // datagram or frame, from 0
    uint32_t index;    // block of the frame, from 0
    uint32_t size;     // bytes of the block
    int64_t handed_ns; // monotonic clock when the item was handed over
};

constexpr uint16_t block_marker = 0x5142; // no text and no command begins with its bytes
constexpr size_t block_header_size = sizeof(BlockHeader);
constexpr size_t largest_block = 60000;

int64_t monotonic_ns();

// Writes all but the time of hand-over; `header.size` bytes, block_header_size to largest_block.
void fill_block(uint8_t *at, const BlockHeader &header);
void stamp_block(uint8_t *at, int64_t handed_ns);

// Reads a block of `size` bytes. False when it is no block at all.
bool read_block_header(const uint8_t *at, size_t size, BlockHeader &header);
// True when every byte behind the header is what fill_block wrote.
bool is_intact(const uint8_t *at, size_t size, const BlockHeader &header);
