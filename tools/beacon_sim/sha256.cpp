#include "sha256.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>

constexpr size_t block_size = 64;
constexpr size_t length_at = 56; // of the message's length in its last block

constexpr uint32_t round_constants[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

static uint32_t big_endian(const uint8_t *at) {
    return uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | uint32_t{at[2]} << 8 | at[3];
}

static void fill_schedule(uint32_t *words, const uint8_t *block) {
    for (int i = 0; i < 16; ++i) {
        words[i] = big_endian(block + size_t{4} * static_cast<size_t>(i));
    }
    for (int i = 16; i < 64; ++i) {
        const uint32_t near = words[i - 2];
        const uint32_t far = words[i - 15];
        words[i] = words[i - 16] + words[i - 7] +
                   (std::rotr(far, 7) ^ std::rotr(far, 18) ^ (far >> 3)) +
                   (std::rotr(near, 17) ^ std::rotr(near, 19) ^ (near >> 10));
    }
}

static void add_block(uint32_t *state, const uint8_t *block) {
    uint32_t words[64];
    fill_schedule(words, block);
    uint32_t s[8];
    std::copy_n(state, 8, s);
    for (int i = 0; i < 64; ++i) {
        const uint32_t sum1 = std::rotr(s[4], 6) ^ std::rotr(s[4], 11) ^ std::rotr(s[4], 25);
        const uint32_t choice = (s[4] & s[5]) ^ (~s[4] & s[6]);
        const uint32_t t1 = s[7] + sum1 + choice + round_constants[i] + words[i];
        const uint32_t sum0 = std::rotr(s[0], 2) ^ std::rotr(s[0], 13) ^ std::rotr(s[0], 22);
        const uint32_t majority = (s[0] & s[1]) ^ (s[0] & s[2]) ^ (s[1] & s[2]);
        std::copy_backward(s, s + 7, s + 8);
        s[4] += t1;
        s[0] = t1 + sum0 + majority;
    }
    for (int i = 0; i < 8; ++i) {
        state[i] += s[i];
    }
}

void add_to_sha256(Sha256 &sha, const uint8_t *data, size_t length) {
    while (length > 0) {
        const size_t used = sha.length % block_size;
        const size_t part = std::min(length, block_size - used);
        memcpy(sha.block + used, data, part);
        sha.length += part;
        data += part;
        length -= part;
        if (used + part == block_size) {
            add_block(sha.state, sha.block);
        }
    }
}

std::string sha256_text(Sha256 sha) {
    const uint64_t bits = sha.length * 8;
    const uint8_t mark = 0x80;
    const uint8_t zero = 0;
    add_to_sha256(sha, &mark, 1);
    while (sha.length % block_size != length_at) {
        add_to_sha256(sha, &zero, 1);
    }
    uint8_t tail[8];
    for (int i = 0; i < 8; ++i) {
        tail[i] = static_cast<uint8_t>(bits >> (56 - 8 * i));
    }
    add_to_sha256(sha, tail, sizeof tail);
    std::string text;
    for (const uint32_t word : sha.state) {
        char digits[9];
        snprintf(digits, sizeof digits, "%08x", word);
        text += digits;
    }
    return text;
}
