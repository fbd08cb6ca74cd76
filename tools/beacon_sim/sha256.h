#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// SHA-256 (FIPS 180-4) of data that comes in pieces.
struct Sha256 {
    uint32_t state[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                         0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
    uint8_t block[64] = {};
    uint64_t length = 0; // bytes so far
};

void add_to_sha256(Sha256 &sha, const uint8_t *data, size_t length);

// The digest of all that was added, as 64 hexadecimal digits; `sha` may be added to further.
std::string sha256_text(Sha256 sha);
