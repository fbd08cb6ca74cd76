#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

// Copies `source` into `field` of `size` bytes, cut to size - 1 characters; the rest of the field
// is left as it was behind the terminating zero.
void copy_text(char *field, size_t size, const char *source);

// Deletes every double quote in place.
void remove_double_quotes(char *text);

// The number a text begins with, base 10 (leading blanks and a sign allowed); 0 when it begins
// with none. Numbers beyond 32 bits give the nearest 32-bit value on every machine.
int32_t parse_number(const char *text);

// The same for a hexadecimal text, with or without "0x".
int32_t parse_hexadecimal(const char *text);

// Little-endian numbers at any address, as all the boards have them. Each is copied in one go, so
// that a process that shares the memory does not see half of one; byte by byte it would on ARM.
static_assert(std::endian::native == std::endian::little);

inline void put_u16(uint8_t *at, uint16_t value) {
    std::memcpy(at, &value, sizeof value);
}

inline void put_u32(uint8_t *at, uint32_t value) {
    std::memcpy(at, &value, sizeof value);
}

inline uint16_t get_u16(const uint8_t *at) {
    uint16_t value = 0;
    std::memcpy(&value, at, sizeof value);
    return value;
}

inline uint32_t get_u32(const uint8_t *at) {
    uint32_t value = 0;
    std::memcpy(&value, at, sizeof value);
    return value;
}

// Doubles of shared memory. A 32-bit processor copies the two halves one after the other: who looks
// in between sees a number that is within a millionth of the old or the new one, because sign,
// exponent and the first 20 bits are in one half.
inline void put_double(uint8_t *at, double value) {
    std::memcpy(at, &value, sizeof value);
}

inline double get_double(const uint8_t *at) {
    double value = 0.0;
    std::memcpy(&value, at, sizeof value);
    return value;
}
