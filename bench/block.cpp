#include "block.h"

#include <array>
#include <cstring>

constexpr size_t noise_shifts = 4096;
constexpr size_t noise_size = largest_block + noise_shifts;
constexpr size_t handed_at = offsetof(BlockHeader, handed_ns);

static std::array<uint8_t, noise_size> make_noise() {
    std::array<uint8_t, noise_size> noise{};
    uint32_t state = 2463534242;
    for (uint8_t &byte : noise) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        byte = static_cast<uint8_t>(state >> 24);
    }
    return noise;
}

// The noise of a block: a section of one table, selected by the block's header.
static const uint8_t *block_noise(const BlockHeader &header) {
    static const std::array<uint8_t, noise_size> noise = make_noise();
    const uint32_t mix = header.item * 2654435761U + header.index * 40503U + header.size * 97U;
    return noise.data() + (mix >> 8) % noise_shifts;
}

void fill_block(uint8_t *at, const BlockHeader &header) {
    memcpy(at, &header, block_header_size);
    memcpy(at + block_header_size, block_noise(header), header.size - block_header_size);
}

void stamp_block(uint8_t *at, int64_t handed_ns) {
    memcpy(at + handed_at, &handed_ns, sizeof handed_ns);
}

bool read_block_header(const uint8_t *at, size_t size, BlockHeader &header) {
    if (size < block_header_size) {
        return false;
    }
    memcpy(&header, at, block_header_size);
    return header.marker == block_marker;
}

bool is_intact(const uint8_t *at, size_t size, const BlockHeader &header) {
    return header.size == size &&
           memcmp(at + block_header_size, block_noise(header), size - block_header_size) == 0;
}
