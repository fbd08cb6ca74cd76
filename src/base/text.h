#pragma once

#include <cstddef>
#include <cstdint>

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

// Little-endian numbers at any address.
constexpr void put_u16(uint8_t *at, uint16_t value) {
    at[0] = static_cast<uint8_t>(value & 0xFF);
    at[1] = static_cast<uint8_t>(value >> 8);
}

constexpr void put_u32(uint8_t *at, uint32_t value) {
    put_u16(at, static_cast<uint16_t>(value & 0xFFFF));
    put_u16(at + 2, static_cast<uint16_t>(value >> 16));
}

constexpr uint16_t get_u16(const uint8_t *at) {
    return static_cast<uint16_t>(at[0] | (at[1] << 8));
}

constexpr uint32_t get_u32(const uint8_t *at) {
    return get_u16(at) | (static_cast<uint32_t>(get_u16(at + 2)) << 16);
}
