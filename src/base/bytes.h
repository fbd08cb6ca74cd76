#pragma once

// Reads and writes the little-endian numbers of packets and shared memory, byte by byte.
// Stands on: nothing else of ours.

#include <cstdint>

// The address need not be aligned. The caller makes sure that the bytes exist. Any thread.
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
